#include <unistd.h>

#include "core/log.hpp"
#include "lh_close.h"

int lh_close(int *fd)
{
    if (PTR_IS_NULL(fd))
        return -1;
    // Deliberate: closing what is closed already is an error, for the author who lost count.
    if (IS_EQ(-1, *fd))
        return -1;
    if (CALL_FAILED(close(*fd)))
        return -1;
    *fd = -1;
    return 0;
}
