#include "logging/Log.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace Logging {

struct Capture::State {
    mutable std::mutex mutex;
    std::vector<Line> lines;
};

namespace {

std::mutex& CapturesMutex() {
    static std::mutex m;
    return m;
}

std::vector<Capture*>& Captures() {
    static std::vector<Capture*> c;
    return c;
}

bool StartedBySystemd() {
    return std::getenv("JOURNAL_STREAM") != nullptr || std::getenv("INVOCATION_ID") != nullptr;
}

// -1: decide from the environment on first use; 0/1: forced.
std::atomic<int> g_echo{-1};

bool EchoToStderr() {
    int v = g_echo.load(std::memory_order_relaxed);
    if (v < 0) {
        v = StartedBySystemd() ? 0 : 1;
        g_echo.store(v, std::memory_order_relaxed);
    }
    return v == 1;
}

const char* PriorityName(int priority) {
    static const char* const names[] = {"emerg",   "alert",  "crit", "err",
                                        "warning", "notice", "info", "debug"};
    const int p = LOG_PRI(priority);
    return (p >= 0 && p < 8) ? names[p] : "log";
}

}  // namespace

void Record(int priority, const std::string& text) {
    std::lock_guard<std::mutex> lock(CapturesMutex());
    for (Capture* c : Captures())
        c->Add(priority, text);
}

void SetStderrEcho(bool enabled) {
    g_echo.store(enabled ? 1 : 0, std::memory_order_relaxed);
}

void VLog(int priority, const char* format, va_list args) {
    char small[512];
    va_list copy;
    va_copy(copy, args);
    const int n = std::vsnprintf(small, sizeof small, format, copy);
    va_end(copy);
    std::string text;
    if (n < 0) {
        text = format;
    } else if (static_cast<size_t>(n) < sizeof small) {
        text.assign(small, static_cast<size_t>(n));
    } else {
        text.resize(static_cast<size_t>(n) + 1);
        std::vsnprintf(text.data(), text.size(), format, args);
        text.resize(static_cast<size_t>(n));
    }

    syslog(priority, "%s", text.c_str());
    if (EchoToStderr()) {
        // one write per line keeps lines from several threads whole
        std::string echo = std::string(PriorityName(priority)) + ": " + text;
        while (!echo.empty() && echo.back() == '\n')
            echo.pop_back();
        echo.push_back('\n');
        std::fwrite(echo.data(), 1, echo.size(), stderr);
    }
    Record(priority, text);
}

void Log(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    VLog(priority, format, args);
    va_end(args);
}

Capture::Capture() : state(new State) {
    std::lock_guard<std::mutex> lock(CapturesMutex());
    Captures().push_back(this);
}

Capture::~Capture() {
    {
        std::lock_guard<std::mutex> lock(CapturesMutex());
        auto& c = Captures();
        c.erase(std::remove(c.begin(), c.end(), this), c.end());
    }
    delete state;
}

void Capture::Add(int priority, const std::string& text) {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->lines.push_back({LOG_PRI(priority), text});
}

std::vector<Line> Capture::Lines() const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->lines;
}

std::vector<std::string> Capture::Texts() const {
    std::vector<std::string> out;
    for (const auto& l : Lines())
        out.push_back(l.text);
    return out;
}

std::size_t Capture::Count(const std::string& text, int priority) const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return static_cast<std::size_t>(std::count_if(
        state->lines.begin(), state->lines.end(),
        [&](const Line& l) { return l.text == text && (priority < 0 || l.priority == priority); }));
}

std::size_t Capture::CountContaining(const std::string& fragment) const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return static_cast<std::size_t>(
        std::count_if(state->lines.begin(), state->lines.end(),
                      [&](const Line& l) { return l.text.find(fragment) != std::string::npos; }));
}

void Capture::Clear() {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->lines.clear();
}

}  // namespace Logging
