/* A small daemon's worth of what is installed: the library, its headers, libyaml's through them. */
#include <lh_str.h>
#include <lh_vrrp.h>
#include <lh_yaml.h>
#include <stdio.h>

int main(void)
{
    char name[] = "client";
    yaml_event_t event;
    lh_str_toupper(name, sizeof(name));
    printf("%s %s %d\n", name, lh_vrrp_status_stringize(3),
           yaml_set_val_int(NULL, &event, "port", 22));
    return 0;
}
