#include "lh_reload_reason.h"

#include <cstddef>
#include <cstring>
#include <ctime>
#include <span>

#include "core/log.hpp"
#include "core/platform.hpp"
#include "lh_file.h"
#include "lh_process.h"
#include "lh_str.h"

using namespace vyt;

namespace {

constexpr const char *no_reason = "Unknown: reload reason is not specified";
constexpr size_t path_size = 4096;
constexpr size_t text_size = 512;

// Appends the time, or nothing where it does not fit.
void append_time(std::span<char> text)
{
    const size_t length = strlen(text.data());
    const time_t now = time(nullptr);
    tm local;
    tzset(); // localtime_r alone never notices that the router's time zone was changed
    if (localtime_r(&now, &local) == nullptr ||
        strftime(text.data() + length, text.size() - length, " at %d.%m.%Y %H:%M:%S", &local) == 0)
        text[length] = '\0';
}

} // namespace

int lh_reload_reason_write(const char *reload_reason, const char *path, bool add_time)
{
    char file[path_size];
    file[0] = '\0'; // a line may show it even when formatting failed
    if (path != nullptr)
        strlcpy(file, path, sizeof(file));
    else if (_lh_snprintf(file, sizeof(file), "/tmp/%d", lh_process_self_pid_get()) != 0)
        return -1;
    if (lh_file_create(file, 0600) != 0) {
        // Deliberate: the same words as for a failed write, which the log's readers look for.
        LOG_ERROR("lh_file_write failed");
        return -1;
    }

    char text[text_size];
    if (PTR_IS_NULL(reload_reason)) {
        strlcpy(text, no_reason, sizeof(text));
    } else {
        strlcpy(text, reload_reason, sizeof(text));
        if (add_time)
            append_time(text);
    }
    if (lh_file_write(file, text, strlen(text)) != 0) {
        LOG_ERROR("lh_file_write failed");
        return -1;
    }
    return 0;
}
