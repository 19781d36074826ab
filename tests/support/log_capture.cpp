#include "tests/support/log_capture.h"

#include <sstream>

#include "zq/util/zqlog.h"

std::ostream &operator<<(std::ostream &out, const LogLine &line)
{
    return out << "[" << line.level << "] " << line.text;
}

std::string joined(const Lines &lines)
{
    std::ostringstream out;
    for (const LogLine &line : lines)
        out << (out.tellp() > 0 ? "; " : "") << line;
    return out.str();
}

LogCapture::LogCapture(int level)
{
    // Under fault injection the default log itself may fail to be made, once for each allocation
    // on each call path: trying again must be the same path.
    while (zq_log_init() != 0) {
    }
    zq_log_callback_set(nullptr, receive, this);
    zq_log_callback_set_level(nullptr, level);
    zq_log_callback_enable(nullptr);
    zq_log_stderr_disable(nullptr);
    // The buffer for messages grows now, so that no line is lost when it cannot grow later.
    while (zq_log(nullptr, 0, "%500s", "") != 0) {
    }
    lines.clear();
}

LogCapture::~LogCapture()
{
    zq_log_callback_disable(nullptr);
    zq_log_callback_set(nullptr, nullptr, nullptr);
    zq_log_stderr_enable(nullptr);
}

Lines LogCapture::take()
{
    std::lock_guard lock(mutex);
    return std::move(lines);
}

int LogCapture::receive(const char *message, size_t length, unsigned int level, time_t,
                        void *userdata)
{
    auto *self = static_cast<LogCapture *>(userdata);
    std::lock_guard lock(self->mutex);
    self->lines.push_back({level, std::string(message, length)});
    return 0;
}
