// A small JSON writer for the tool's reports: objects, arrays, strings, numbers and
// booleans, with commas placed for the caller. Strings are written as valid UTF-8 whatever
// they hold: quotes, backslashes and control bytes are escaped and bytes that do not form
// UTF-8 become U+FFFD.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

class JsonWriter {
  public:
    JsonWriter& beginObject();
    JsonWriter& endObject();
    JsonWriter& beginArray();
    JsonWriter& endArray();
    // The key of the next member of the object being written.
    JsonWriter& key(std::string_view name);

    JsonWriter& value(std::string_view text);
    JsonWriter& value(const char* text) { return value(std::string_view(text)); }
    JsonWriter& value(const std::string& text) { return value(std::string_view(text)); }
    JsonWriter& value(uint64_t number);
    JsonWriter& value(int64_t number);
    JsonWriter& value(uint32_t number) { return value(static_cast<uint64_t>(number)); }
    JsonWriter& value(int number) { return value(static_cast<int64_t>(number)); }
    JsonWriter& value(bool flag);
    JsonWriter& null();

    template <class T>
    JsonWriter& field(std::string_view name, const T& v) {
        key(name);
        return value(v);
    }

    // The document so far, and a newline once it is complete.
    const std::string& text() const { return out_; }

  private:
    void beforeValue();
    std::string out_;
    std::vector<bool> first_;  // per open container: no member written yet
    bool afterKey_ = false;
};

// text as a JSON string literal, quotes included.
std::string jsonQuote(std::string_view text);
