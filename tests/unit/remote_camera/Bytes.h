// Camera answers and commands written as text in the tests.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

inline Bytes B(const std::string& text) {
    return Bytes(text.begin(), text.end());
}
