#include "test_support/TestEnv.h"

#include "test_support/BusKit.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace TestSupport {

namespace {
std::string Env(const char* name) {
    const char* v = std::getenv(name);
    return v != nullptr ? v : "";
}
}  // namespace

bool InHarness() {
    return !Env("TESTENV_DIR").empty();
}
std::string HarnessDir() {
    return Env("TESTENV_DIR");
}
std::string HciCallLog() {
    return Env("TESTENV_HCI_LOG");
}
std::string SysfsBluetoothDir() {
    return Env("TESTENV_SYSFS_BT");
}

std::vector<std::string> ReadLines(const std::string& path) {
    std::vector<std::string> lines;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line))
        lines.push_back(line);
    return lines;
}

void Truncate(const std::string& path) {
    std::ofstream(path, std::ios::trunc).close();
}

void WriteFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::trunc);
    out << text;
}

void SetStubExitStatus(const std::string& tool, int status) {
    WriteFile(HarnessDir() + "/stubs/" + tool + ".rc", std::to_string(status) + "\n");
}

namespace {

int CallV(Bus bus, const char* destination, const char* path, const char* interface, const char* member,
          DbusHelper::Message* reply, const char* types, va_list ap) {
    const auto kind = bus == Bus::System ? BusKit::BusKind::System : BusKit::BusKind::User;
    DbusHelper::Reader keep;
    if (reply != nullptr)
        keep = [reply](sd_bus_message* m) {
            reply->reset(sd_bus_message_ref(m));
            return 0;
        };
    return BusKit::Call(
        kind, destination, path, interface, member,
        [types, ap](sd_bus_message* m) {
            va_list args;
            va_copy(args, ap);
            const int r = sd_bus_message_appendv(m, types, args);
            va_end(args);
            return r;
        },
        keep);
}

}  // namespace

int CallMethod(Bus bus, const char* destination, const char* path, const char* interface, const char* member,
               sd_bus_message** reply, const char* types, ...) {
    DbusHelper::Message kept;
    va_list ap;
    va_start(ap, types);
    const int r =
        CallV(bus, destination, path, interface, member, reply != nullptr ? &kept : nullptr, types, ap);
    va_end(ap);
    if (reply != nullptr)
        *reply = kept.release();
    return r;
}

int CallForReply(Bus bus, const char* destination, const char* path, const char* interface,
                 const char* member, DbusHelper::Message& reply, const char* types, ...) {
    va_list ap;
    va_start(ap, types);
    const int r = CallV(bus, destination, path, interface, member, &reply, types, ap);
    va_end(ap);
    return r;
}

NotifySocket::NotifySocket(std::string socketPath) : path(std::move(socketPath)) {
    fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        throw std::runtime_error("socket");
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path)
        throw std::runtime_error("notify socket path too long");
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    unlink(path.c_str());
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0)
        throw std::runtime_error("bind");
}

NotifySocket::~NotifySocket() {
    close(fd);
    unlink(path.c_str());
}

std::optional<std::string> NotifySocket::WaitFor(const std::string& line, std::chrono::milliseconds timeout) {
    auto holds = [&](const std::string& msg) {
        return ("\n" + msg + "\n").find("\n" + line + "\n") != std::string::npos;
    };
    for (const auto& m : seen)
        if (holds(m))
            return m;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return std::nullopt;
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left.count())) <= 0)
            continue;
        char buf[4096];
        const ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n <= 0)
            continue;
        seen.emplace_back(buf, static_cast<size_t>(n));
        if (holds(seen.back()))
            return seen.back();
    }
}

ScopedIdentity::ScopedIdentity(const std::string& serial, const std::string& model, int radioType) {
    char tmpl[] = "/tmp/qb-identity.XXXXXX";
    const int fd = mkstemp(tmpl);
    if (fd < 0)
        throw std::runtime_error("mkstemp");
    close(fd);
    path = tmpl;
    WriteFile(path,
              "serial=" + serial + "\nmodel=" + model + "\nradio_type=" + std::to_string(radioType) + "\n");
    const char* prev = std::getenv("VANTU_IDENTITY_FILE");
    if (prev != nullptr)
        previous = prev;
    setenv("VANTU_IDENTITY_FILE", path.c_str(), 1);
}

ScopedIdentity::~ScopedIdentity() {
    if (previous)
        setenv("VANTU_IDENTITY_FILE", previous->c_str(), 1);
    else
        unsetenv("VANTU_IDENTITY_FILE");
    unlink(path.c_str());
}

}  // namespace TestSupport
