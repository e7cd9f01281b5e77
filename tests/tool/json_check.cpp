#include "json_check.h"

#include <nlohmann/json.hpp>

namespace jsoncheck {

namespace {

const Value kNull;

Value convert(const nlohmann::ordered_json& j) {
    Value v;
    switch (j.type()) {
        case nlohmann::ordered_json::value_t::boolean: v.kind = Value::Bool; v.boolean = j.get<bool>(); break;
        case nlohmann::ordered_json::value_t::number_integer:
        case nlohmann::ordered_json::value_t::number_unsigned:
        case nlohmann::ordered_json::value_t::number_float: v.kind = Value::Number; v.number = j.get<double>(); break;
        case nlohmann::ordered_json::value_t::string: v.kind = Value::String; v.text = j.get<std::string>(); break;
        case nlohmann::ordered_json::value_t::array:
            v.kind = Value::Array;
            for (const auto& item : j) v.items.push_back(convert(item));
            break;
        case nlohmann::ordered_json::value_t::object:
            v.kind = Value::Object;
            for (const auto& [k, item] : j.items()) {
                v.keys.push_back(k);
                v.items.push_back(convert(item));
            }
            break;
        default: break;
    }
    return v;
}

}  // namespace

bool Value::has(std::string_view key) const {
    for (const std::string& k : keys)
        if (k == key) return true;
    return false;
}

const Value& Value::operator[](std::string_view key) const {
    for (size_t i = 0; i < keys.size(); ++i)
        if (keys[i] == key) return items[i];
    return kNull;
}

const Value& Value::operator[](size_t index) const {
    return kind == Array && index < items.size() ? items[index] : kNull;
}

bool parse(std::string_view text, Value* out, std::string* error) {
    *out = Value{};
    try {
        *out = convert(nlohmann::ordered_json::parse(text));
        return true;
    } catch (const nlohmann::json::exception& e) {
        *error = e.what();
        return false;
    }
}

}  // namespace jsoncheck
