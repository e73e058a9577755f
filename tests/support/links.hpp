// The links of a loaded library to what others define.
#pragma once

#include <functional>
#include <vector>

namespace vyt::test {

struct redirected_link {
    void **slot;
    void *before;
};

// Lets the links of a loaded library, named by a part of its file's name, lead where `target_of`
// says for their symbol; where it answers null, a link stays. Throws when there is no such library.
std::vector<redirected_link> redirect_links(const char *library,
                                            const std::function<void *(const char *)> &target_of);

} // namespace vyt::test
