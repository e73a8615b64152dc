#pragma once
// One row per static operation of a sibling-daemon client: what it calls, and the words its failure logs
// carry. The tables are constexpr so that an operation finds its row while compiling, and so that tests can
// build the lines they expect from the same rows.

#include <cstddef>
#include <stdexcept>
#include <string_view>

namespace SiblingCall {

enum class Kind { PropertyGet, PropertySet, Method, GetAll };

struct Operation {
    const char* name;  // the client's static function
    Kind kind;
    const char* where;  // its signature text, first word of its failure logs
    const char* macro;  // the word its failure logs name the property or method by; "" where they name none
    const char* service;
    const char* path;
    const char* remotePath;  // the object a caller may pick instead of `path` (remote power), or nullptr
    const char* interface;
    const char* member;  // "" for GetAll

    constexpr const char* Path(bool remote) const {
        return remote && remotePath != nullptr ? remotePath : path;
    }
};

// One interface of an object (or of a local/remote pair of objects): builds its rows.
struct ObjectInterface {
    const char* service;
    const char* path;
    const char* remotePath;
    const char* interface;

    constexpr Operation Get(const char* name, const char* where, const char* macro,
                            const char* member) const {
        return Row(Kind::PropertyGet, name, where, macro, member);
    }
    constexpr Operation Set(const char* name, const char* where, const char* macro,
                            const char* member) const {
        return Row(Kind::PropertySet, name, where, macro, member);
    }
    constexpr Operation Method(const char* name, const char* where, const char* macro,
                               const char* member) const {
        return Row(Kind::Method, name, where, macro, member);
    }
    constexpr Operation GetAll(const char* name, const char* where) const {
        return Row(Kind::GetAll, name, where, "", "");
    }
    constexpr Operation Row(Kind kind, const char* name, const char* where, const char* macro,
                            const char* member) const {
        return {name, kind, where, macro, service, path, remotePath, interface, member};
    }
};

// The index of `name` in `table`. Used in a constant expression, an unknown name does not compile.
template <std::size_t N>
constexpr std::size_t IndexOf(const Operation (&table)[N], std::string_view name) {
    for (std::size_t i = 0; i < N; ++i)
        if (name == table[i].name)
            return i;
    throw std::out_of_range("no such sibling operation");
}

template <std::size_t N>
constexpr const Operation& Find(const Operation (&table)[N], std::string_view name) {
    return table[IndexOf(table, name)];
}

}  // namespace SiblingCall
