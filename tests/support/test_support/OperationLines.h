#pragma once
// The line a failed network or power operation logs, put together from its row, for the tests that expect
// it; the settings client's own formats are spelled where they are expected.

#include <string>

#include "clients/SiblingOperation.h"

namespace ClientsTest {

// "<where>: sdbus_utils::GetProperty <macro> failed <error>" and the like, as the row's kind has it; a
// method's line carries no error text.
inline std::string FailureLine(const SiblingCall::Operation& op, const std::string& error) {
    const std::string where = op.where;
    switch (op.kind) {
        case SiblingCall::Kind::PropertyGet:
            return where + ": sdbus_utils::GetProperty " + op.macro + " failed " + error;
        case SiblingCall::Kind::PropertySet:
            return where + ": sdbus_utils::SetProperty " + op.macro + " failed " + error;
        case SiblingCall::Kind::Method:
            return where + ": sd_bus_call_method " + op.macro + " failed";
        case SiblingCall::Kind::GetAll:
            return where + ": sdbus_utils::GetAllProperties failed " + error;
    }
    return "unknown kind of " + where;
}

}  // namespace ClientsTest
