#include "lh_netns.h"

#include <cstring>

#include "core/log.hpp"

using namespace vyt;

namespace {

constexpr const char *default_ns = "1";

bool is_default(const char *ns)
{
    return *ns == '\0' || strcmp(ns, default_ns) == 0;
}

} // namespace

bool lh_netns_is_default(const char *ns)
{
    if (PTR_IS_NULL(ns))
        return false;
    return is_default(ns);
}

bool lh_netns_eq(const char *ns1, const char *ns2)
{
    if (PTR_IS_NULL(ns1) || PTR_IS_NULL(ns2))
        return false;
    return (is_default(ns1) && is_default(ns2)) || strcmp(ns1, ns2) == 0;
}

const char *lh_netns_stringize(const char *ns)
{
    if (PTR_IS_NULL(ns))
        return "";
    return is_default(ns) ? default_ns : ns;
}
