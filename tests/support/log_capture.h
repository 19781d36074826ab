#ifndef TESTS_SUPPORT_LOG_CAPTURE_H
#define TESTS_SUPPORT_LOG_CAPTURE_H

#include <mutex>
#include <ostream>
#include <string>
#include <vector>

struct LogLine {
    unsigned int level;
    std::string text;
    bool operator==(const LogLine &) const = default;
};
using Lines = std::vector<LogLine>;
std::ostream &operator<<(std::ostream &out, const LogLine &line);
// "[LEVEL] text; [LEVEL] text"
std::string joined(const Lines &lines);

// Catches the lines of the default log, as severe as `level` or more, for its lifetime, and keeps
// standard error quiet.
class LogCapture {
  public:
    explicit LogCapture(int level = 10);
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    // The lines since the last call.
    Lines take();

  private:
    static int receive(const char *message, size_t length, unsigned int level, time_t time,
                       void *userdata);
    std::mutex mutex;
    Lines lines;
};

#endif
