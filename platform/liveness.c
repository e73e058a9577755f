/* Stand-in for the board's liveness library: a desk has no liveness manager. */

int get_alive_mgr_pid(int unused)
{
    (void)unused;
    return -1;
}
