#include "dbus_helper/Call.h"

#include "dbus_helper/Handles.h"

namespace DbusHelper {

namespace {

int Fail(CallFailure& failure, CallFailure::Step step, int result, const Error& error) {
    failure.step = step;
    failure.result = result;
    failure.name = error.Name();
    if (error.Get()->message != nullptr)
        failure.message = error.Get()->message;
    return result;
}

}  // namespace

int CallMethod(sd_bus* bus, BusKind kind, const std::string& destination, const std::string& path,
               const std::string& interface, const std::string& member, const Writer& append,
               const Reader& read, CallFailure& failure, uint64_t timeoutUsec) {
    failure = CallFailure{};
    Bus owned;  // closed last
    Error error;
    if (bus == nullptr) {
        sd_bus* opened = nullptr;
        const int r = kind == BusKind::System ? sd_bus_open_system(&opened) : sd_bus_open_user(&opened);
        if (r < 0)
            return Fail(failure, CallFailure::Step::Open, r, error);
        owned.reset(opened);
        bus = opened;
    }

    Message request;
    {
        sd_bus_message* built = nullptr;
        int r = sd_bus_message_new_method_call(bus, &built, destination.c_str(), path.c_str(),
                                               interface.c_str(), member.c_str());
        request.reset(built);
        if (r >= 0 && append)
            r = append(request.get());
        if (r < 0) {
            sd_bus_error_set_errno(error.Get(), r);
            return Fail(failure, CallFailure::Step::Build, r, error);
        }
    }

    Message reply;
    sd_bus_message* received = nullptr;
    const int r = sd_bus_call(bus, request.get(), timeoutUsec, error.Get(), &received);
    reply.reset(received);
    if (r < 0)
        return Fail(failure, CallFailure::Step::Call, r, error);
    if (read) {
        const int readResult = read(reply.get());
        if (readResult < 0)
            return Fail(failure, CallFailure::Step::Read, readResult, error);
    }
    return r;
}

}  // namespace DbusHelper
