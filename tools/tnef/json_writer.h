// The tool's JSON reports, written member by member: a document of nlohmann-json built as
// the calls come, so commas, escapes and UTF-8 are the library's. Members keep the order
// they were written in; bytes that do not form UTF-8 come out as U+FFFD.
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

class JsonWriter {
  public:
    JsonWriter& beginObject() { return open(nlohmann::ordered_json::object()); }
    JsonWriter& endObject() { return close(); }
    JsonWriter& beginArray() { return open(nlohmann::ordered_json::array()); }
    JsonWriter& endArray() { return close(); }
    // The key of the next member of the object being written.
    JsonWriter& key(std::string_view name);

    JsonWriter& value(std::string_view text) { return put(std::string(text)); }
    JsonWriter& value(const char* text) { return value(std::string_view(text)); }
    JsonWriter& value(const std::string& text) { return put(text); }
    JsonWriter& value(uint64_t number) { return put(number); }
    JsonWriter& value(int64_t number) { return put(number); }
    JsonWriter& value(uint32_t number) { return put(static_cast<uint64_t>(number)); }
    JsonWriter& value(int number) { return put(static_cast<int64_t>(number)); }
    JsonWriter& value(bool flag) { return put(flag); }
    JsonWriter& null() { return put(nullptr); }

    template <class T>
    JsonWriter& field(std::string_view name, const T& v) {
        key(name);
        return value(v);
    }

    // The document and a newline once it is complete; empty before.
    const std::string& text() const { return out_; }

  private:
    JsonWriter& open(nlohmann::ordered_json container);
    JsonWriter& close();
    JsonWriter& put(nlohmann::ordered_json v);
    nlohmann::ordered_json root_;
    std::vector<nlohmann::ordered_json*> open_;  // the containers not yet ended
    std::string key_;
    std::string out_;
};
