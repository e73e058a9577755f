/* Every check with operands of every kind, as a daemon writes them: compiled in every language of the
   headers with the warnings that a careful daemon turns on. */
#include <lh_check.h>
#include <stddef.h>
#include <stdint.h>

enum port_state { PORT_DOWN, PORT_UP, PORT_TEST };
struct port {
    short slot;
    unsigned short vlan;
    signed char offset;
    unsigned char lane;
    enum port_state state;
    size_t mtu;
    const void *owner;
    const char *name;
    int (*open)(const struct port *);
};

int check_pointers(const struct port *port, struct port **all)
{
    if (PTR_IS_NULL(port) || PTR_IS_NULL(port->owner) || PTR_IS_NULL(port->name) ||
        PTR_IS_NULL(port->open))
        return -1;
    if (PTR_IS_NULL(all) || PTR_NOT_NULL(*all) || PTR_NOT_NULL(all[port->lane]) ||
        PTR_NOT_NULL(port->owner) || PTR_NOT_NULL(port->open))
        return -1;
    return 0;
}

/* The numbers of a pair need not be of one type. */
int check_pairs(const struct port *port, long line, uint64_t counter)
{
    if (IS_EQ(-1, line) || IS_EQ(port->slot, port->lane) || IS_EQ(port->mtu, 0) ||
        IS_EQ(port->state, PORT_DOWN) || IS_EQ(port->lane, port->mtu))
        return -1;
    if (IS_NE(sizeof(*port), port->mtu) || IS_NE(port->vlan, port->offset) ||
        IS_NE(port->state, port->slot) || IS_NE(port->offset, 'x') || IS_NE(1, counter))
        return -1;
    if (IS_LT(port->slot, 0) || IS_LT(port->lane, 4u) || IS_LT(port->mtu, port->slot) ||
        IS_LT(port->state, PORT_UP) || IS_LT(counter, line))
        return -1;
    if (IS_MT(port->offset, port->vlan) || IS_MT(port->lane, 0x7f) || IS_MT(port->mtu, SIZE_MAX) ||
        IS_MT(PORT_TEST, port->state) || IS_MT(line, counter) || IS_MT(line > 0 ? 1 : 2, 'c'))
        return -1;
    return 0;
}

int check_ranges(const struct port *port, unsigned id, int64_t since)
{
    if (IS_ME(port->slot, 8) || IS_ME(port->lane, port->mtu) || IS_ME(port->mtu, 9000u) ||
        IS_ME(port->state, PORT_TEST) || IS_ME(since, UINT64_MAX))
        return -1;
    if (OUT_OF_RANGE(port->vlan, 1, 4094) || OUT_OF_RANGE(port->offset, -1, port->slot) ||
        OUT_OF_RANGE(port->mtu, port->lane, 9000L) || OUT_OF_RANGE(id, PORT_DOWN, PORT_TEST) ||
        OUT_OF_RANGE(port->state, PORT_DOWN, sizeof(*port)) || OUT_OF_RANGE(since, 0, INT64_MAX))
        return -1;
    return 0;
}

int check_conditions(const struct port *port)
{
    if (IS_NOT(port->lane) || IS_NOT(port->owner) || IS_NOT(port->mtu) || IS_NOT(port->state) ||
        IS_NOT(port->slot > port->offset) || IS_NOT(port->name && port->name[0]))
        return -1;
    if (CALL_FAILED(port->open(port)) || CALL_FAILED(check_ranges(port, port->vlan, port->slot)))
        return -1;
    return 0;
}

/* A check is an expression: in a loop's head, in a choice, in a result, in a check, unread. */
int check_inside_of_others(const struct port *port, int n)
{
    int line = 0, fired;
    for (; !IS_LT(n, 0) && !IS_ME(line, 3); line++)
        n -= IS_MT(n, line) ? 1 : 2;
    fired = PTR_IS_NULL(port) + IS_EQ(n, line);
    (void)IS_NOT(fired == 0);
    return IS_NOT(!IS_EQ(fired, 2)) ? -1 : CALL_FAILED(check_conditions(port));
}
