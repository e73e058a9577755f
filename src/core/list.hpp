// The circular intrusive list: a record is in a list through an lh_list member, its first one.
#pragma once

#include <type_traits>

#include "lh_list.h"

namespace vyt {

// An empty list, or a record that is in no list, is linked to itself.
constexpr void list_init(lh_list *link)
{
    link->next = link;
    link->prev = link;
}

inline bool list_is_empty(const lh_list *head)
{
    return head->next == head;
}

inline void list_insert_after(lh_list *place, lh_list *link)
{
    link->next = place->next;
    link->prev = place;
    place->next->prev = link;
    place->next = link;
}

inline void list_push_front(lh_list *head, lh_list *link)
{
    list_insert_after(head, link);
}

inline void list_push_back(lh_list *head, lh_list *link)
{
    list_insert_after(head->prev, link);
}

// Takes the link out of whatever list it is in; out of none is fine.
inline void list_unlink(lh_list *link)
{
    link->prev->next = link->next;
    link->next->prev = link->prev;
    list_init(link);
}

// The records of a list, from the head on. The current record may be unlinked and released.
template <class Record>
class list_of {
    static_assert(std::is_standard_layout_v<Record>, "a record starts with its lh_list member");

  public:
    explicit list_of(const lh_list &head) : head_(&head) {}

    class iterator {
      public:
        explicit iterator(lh_list *link) : link_(link), next_(link->next) {}
        Record &operator*() const { return *reinterpret_cast<Record *>(link_); }
        iterator &operator++()
        {
            *this = iterator(next_);
            return *this;
        }
        bool operator==(const iterator &other) const { return link_ == other.link_; }

      private:
        lh_list *link_;
        lh_list *next_;
    };

    iterator begin() const { return iterator(head_->next); }
    iterator end() const { return iterator(const_cast<lh_list *>(head_)); }

  private:
    const lh_list *head_;
};

} // namespace vyt
