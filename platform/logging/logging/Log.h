#pragma once
// The daemon's one logging path: syslog() with the exact message texts. When the process was not
// started by systemd (no JOURNAL_STREAM / INVOCATION_ID) each line is echoed to stderr as well, so a
// person running it by hand sees the log. Tests install a Logging::Capture to read the lines back.

#include <syslog.h>

#include <cstdarg>
#include <cstddef>
#include <string>
#include <vector>

namespace Logging {

void Log(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));
void VLog(int priority, const char* format, va_list args) __attribute__((format(printf, 2, 0)));

// Overrides the systemd detection for the stderr echo (tests and tools that must stay quiet).
void SetStderrEcho(bool enabled);

struct Line {
    int priority;
    std::string text;  // exactly as formatted, trailing newlines included
};

// Records every line logged while it is alive, from any thread. Captures may nest; each sees all lines.
class Capture {
  public:
    Capture();
    ~Capture();
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    std::vector<Line> Lines() const;
    std::vector<std::string> Texts() const;
    // Number of lines whose text equals `text` exactly (optionally at `priority` only).
    std::size_t Count(const std::string& text, int priority = -1) const;
    bool Contains(const std::string& text, int priority = -1) const { return Count(text, priority) > 0; }
    // Number of lines containing `fragment`.
    std::size_t CountContaining(const std::string& fragment) const;
    void Clear();

  private:
    friend void Record(int, const std::string&);
    void Add(int priority, const std::string& text);
    struct State;
    State* state;
};

}  // namespace Logging
