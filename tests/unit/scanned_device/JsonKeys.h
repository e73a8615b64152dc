// The keys of a JSON object, for tests that pin a document's shape.
#pragma once

#include <nlohmann/json.hpp>

#include <set>
#include <string>

inline std::set<std::string> KeysOf(const nlohmann::json& object) {
    std::set<std::string> keys;
    for (auto it = object.begin(); it != object.end(); ++it)
        keys.insert(it.key());
    return keys;
}
