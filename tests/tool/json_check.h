// The tool's reports parsed for the tests by nlohmann-json: a report either parses as exactly
// one JSON document of valid UTF-8, or the test hears where it went wrong.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace jsoncheck {

struct Value {
    enum Kind { Null, Bool, Number, String, Array, Object };
    Kind kind = Null;
    bool boolean = false;
    double number = 0;
    std::string text;
    std::vector<Value> items;       // an array's items, or an object's member values
    std::vector<std::string> keys;  // an object's member names, beside their values in items

    bool has(std::string_view key) const;
    // The member or item, or a null value when there is none.
    const Value& operator[](std::string_view key) const;
    const Value& operator[](size_t index) const;
    size_t size() const { return items.size(); }
};

// Parses text as one JSON document with nothing but blanks after it. On failure returns
// false and says where in *error.
bool parse(std::string_view text, Value* out, std::string* error);

}  // namespace jsoncheck
