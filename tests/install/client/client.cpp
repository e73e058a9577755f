// The same from C++, with the version that was found.
#include <cstdio>
#include <lh_str.h>
#include <lh_vrrp.h>

int main()
{
    char name[] = "client";
    lh_str_toupper(name, sizeof(name));
    std::printf("%s %s %s\n", name, lh_vrrp_status_stringize(3), FOUND_VERSION);
}
