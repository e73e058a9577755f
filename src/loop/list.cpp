#include "core/list.hpp"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "core/handles.hpp"
#include "core/log.hpp"

using namespace vyt;

namespace {

// A node as the intrusive list sees it; daemons see the same bytes as an lh_list_node.
struct owned_node {
    lh_list link;
    void *data;
    size_t size;
};
static_assert(offsetof(owned_node, link.next) == offsetof(lh_list_node, next));
static_assert(offsetof(owned_node, link.prev) == offsetof(lh_list_node, prev));
static_assert(offsetof(owned_node, data) == offsetof(lh_list_node, data));
static_assert(offsetof(owned_node, size) == offsetof(lh_list_node, size));
static_assert(sizeof(owned_node) == sizeof(lh_list_node));

// Daemons walk lists themselves: the layout never changes.
static_assert(offsetof(lh_list, next) == 0);
static_assert(offsetof(lh_list, prev) == 8);
static_assert(sizeof(lh_list) == 16);
static_assert(offsetof(lh_list_node, next) == 0);
static_assert(offsetof(lh_list_node, prev) == 8);
static_assert(offsetof(lh_list_node, data) == 16);
static_assert(offsetof(lh_list_node, size) == 24);
static_assert(sizeof(lh_list_node) == 32);

int list_add(lh_list *place, const void *data, size_t size)
{
    if (size != 0 && PTR_IS_NULL(data))
        return 0;
    malloc_ptr<owned_node> node(static_cast<owned_node *>(calloc(1, sizeof(owned_node))));
    if (!node) {
        LOG_ERROR("Unable to allocate memory for new entry");
        return 0;
    }
    node->data = calloc(1, size);
    if (node->data == nullptr) {
        LOG_ERROR("Unable to allocate memory for new entry data");
        return 0;
    }
    if (size != 0)
        memcpy(node->data, data, size);
    node->size = size;
    list_insert_after(place, &node.release()->link); // the list owns it now
    return 1;
}

// Unlinks the node and hands out its data; the head itself stands for "empty".
void *take(const lh_list *head, lh_list *link)
{
    if (link == head)
        return nullptr;
    list_unlink(link);
    auto *node = reinterpret_cast<owned_node *>(link);
    void *data = node->data;
    free(node);
    return data;
}

} // namespace

int lh_list_add(lh_list *head, const void *data, size_t size)
{
    return list_add(head, data, size);
}

int lh_list_add_tail(lh_list *head, const void *data, size_t size)
{
    return list_add(head->prev, data, size);
}

int lh_list_contains_ex(const lh_list *head, const void *key, lh_list_cmp cmp)
{
    if (PTR_IS_NULL(key) || PTR_IS_NULL(cmp))
        return 0;
    for (const owned_node &node : list_of<owned_node>(*head)) {
        // Deliberate: only the low byte counts, for comparators that answer with a byte or a bool.
        if (const int answer = cmp(node.data, key, node.size) & 0xff; answer != 0)
            return answer;
    }
    return 0;
}

int lh_list_contains(const lh_list *head, const void *key)
{
    if (PTR_IS_NULL(key))
        return 0;
    for (const owned_node &node : list_of<owned_node>(*head)) {
        if (memcmp(node.data, key, node.size) == 0)
            return 1;
    }
    return 0;
}

void *lh_list_pop_front(lh_list *head)
{
    return take(head, head->next);
}

void *lh_list_pop_back(lh_list *head)
{
    return take(head, head->prev);
}

int lh_list_empty(const lh_list *head)
{
    return list_is_empty(head) ? 1 : 0;
}

void lh_list_free(lh_list *head)
{
    for (owned_node &node : list_of<owned_node>(*head)) {
        free(node.data);
        free(&node);
    }
    list_init(head);
}
