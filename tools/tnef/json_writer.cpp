#include "json_writer.h"

JsonWriter& JsonWriter::key(std::string_view name) {
    key_ = name;
    return *this;
}

// Places v where the writer stands (the root, an array's next item, or an object's member
// under the last key) and returns where it went.
JsonWriter& JsonWriter::put(nlohmann::ordered_json v) {
    if (open_.empty())
        root_ = std::move(v);
    else if (open_.back()->is_array())
        open_.back()->push_back(std::move(v));
    else
        (*open_.back())[key_] = std::move(v);
    return *this;
}

JsonWriter& JsonWriter::open(nlohmann::ordered_json container) {
    put(std::move(container));
    nlohmann::ordered_json* placed = &root_;
    if (!open_.empty())
        placed = open_.back()->is_array() ? &open_.back()->back() : &(*open_.back())[key_];
    open_.push_back(placed);
    return *this;
}

JsonWriter& JsonWriter::close() {
    if (!open_.empty()) open_.pop_back();
    if (open_.empty())
        out_ = root_.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
    return *this;
}
