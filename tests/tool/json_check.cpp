#include "json_check.h"

#include <cstdlib>

namespace jsoncheck {

namespace {

const Value kNull;

class Parser {
  public:
    explicit Parser(std::string_view text) : t_(text) {}

    bool document(Value* out, std::string* error) {
        const bool ok = value(*out, 0) && (blanks(), pos_ == t_.size());
        if (!ok) *error = "invalid JSON at byte " + std::to_string(pos_) + ": " + what_;
        return ok;
    }

  private:
    bool fail(const char* what) {
        if (what_.empty()) what_ = what;
        return false;
    }
    void blanks() {
        while (pos_ < t_.size() &&
               (t_[pos_] == ' ' || t_[pos_] == '\n' || t_[pos_] == '\r' || t_[pos_] == '\t'))
            ++pos_;
    }
    bool literal(std::string_view word) {
        if (t_.substr(pos_, word.size()) != word) return fail("unknown literal");
        pos_ += word.size();
        return true;
    }

    bool value(Value& v, int depth) {
        if (depth > 64) return fail("nested too deep");
        blanks();
        if (pos_ >= t_.size()) return fail("unexpected end");
        switch (t_[pos_]) {
            case '{':
                return object(v, depth);
            case '[':
                return array(v, depth);
            case '"':
                v.kind = Value::String;
                return string(v.text);
            case 't':
                v.kind = Value::Bool;
                v.boolean = true;
                return literal("true");
            case 'f':
                v.kind = Value::Bool;
                return literal("false");
            case 'n':
                v.kind = Value::Null;
                return literal("null");
            default:
                v.kind = Value::Number;
                return number(v.number);
        }
    }

    bool object(Value& v, int depth) {
        v.kind = Value::Object;
        ++pos_;
        blanks();
        if (pos_ < t_.size() && t_[pos_] == '}') return ++pos_, true;
        for (;;) {
            blanks();
            std::string key;
            if (pos_ >= t_.size() || t_[pos_] != '"' || !string(key))
                return fail("object key expected");
            blanks();
            if (pos_ >= t_.size() || t_[pos_++] != ':') return fail("':' expected");
            Value member;
            if (!value(member, depth + 1)) return false;
            v.keys.push_back(std::move(key));
            v.items.push_back(std::move(member));
            blanks();
            if (pos_ < t_.size() && t_[pos_] == ',') {
                ++pos_;
                continue;
            }
            if (pos_ < t_.size() && t_[pos_] == '}') return ++pos_, true;
            return fail("',' or '}' expected");
        }
    }

    bool array(Value& v, int depth) {
        v.kind = Value::Array;
        ++pos_;
        blanks();
        if (pos_ < t_.size() && t_[pos_] == ']') return ++pos_, true;
        for (;;) {
            Value item;
            if (!value(item, depth + 1)) return false;
            v.items.push_back(std::move(item));
            blanks();
            if (pos_ < t_.size() && t_[pos_] == ',') {
                ++pos_;
                continue;
            }
            if (pos_ < t_.size() && t_[pos_] == ']') return ++pos_, true;
            return fail("',' or ']' expected");
        }
    }

    bool number(double& n) {
        const size_t start = pos_;
        if (pos_ < t_.size() && t_[pos_] == '-') ++pos_;
        const size_t digits = pos_;
        while (pos_ < t_.size() && t_[pos_] >= '0' && t_[pos_] <= '9') ++pos_;
        if (pos_ == digits) return fail("number expected");
        if (t_[digits] == '0' && pos_ - digits > 1) return fail("leading zero");
        if (pos_ < t_.size() && (t_[pos_] == '.' || t_[pos_] == 'e' || t_[pos_] == 'E')) {
            while (pos_ < t_.size() &&
                   std::string_view("0123456789.eE+-").find(t_[pos_]) != std::string_view::npos)
                ++pos_;
        }
        n = std::strtod(std::string(t_.substr(start, pos_ - start)).c_str(), nullptr);
        return true;
    }

    bool hex4(unsigned& u) {
        if (pos_ + 4 > t_.size()) return fail("short \\u escape");
        u = 0;
        for (int i = 0; i < 4; ++i) {
            const char c = t_[pos_++];
            const int d = c >= '0' && c <= '9'   ? c - '0'
                          : c >= 'a' && c <= 'f' ? c - 'a' + 10
                          : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                                 : -1;
            if (d < 0) return fail("bad \\u escape");
            u = u << 4 | static_cast<unsigned>(d);
        }
        return true;
    }

    static void utf8(std::string& out, unsigned c) {
        if (c < 0x80) {
            out += static_cast<char>(c);
            return;
        }
        if (c < 0x800) {
            out += static_cast<char>(0xC0 | c >> 6);
        } else if (c < 0x10000) {
            out += static_cast<char>(0xE0 | c >> 12);
            out += static_cast<char>(0x80 | (c >> 6 & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | c >> 18);
            out += static_cast<char>(0x80 | (c >> 12 & 0x3F));
            out += static_cast<char>(0x80 | (c >> 6 & 0x3F));
        }
        out += static_cast<char>(0x80 | (c & 0x3F));
    }

    bool escape(std::string& out) {
        if (pos_ >= t_.size()) return fail("unfinished escape");
        const char c = t_[pos_++];
        const std::string_view simple = "\"\\/bfnrt";
        const std::string_view means = "\"\\/\b\f\n\r\t";
        if (simple.find(c) != std::string_view::npos) {
            out += means[simple.find(c)];
            return true;
        }
        if (c != 'u') return fail("unknown escape");
        unsigned u = 0;
        if (!hex4(u)) return false;
        if (u >= 0xD800 && u <= 0xDBFF) {
            unsigned low = 0;
            if (t_.substr(pos_, 2) != "\\u" || (pos_ += 2, !hex4(low)) || low < 0xDC00 ||
                low > 0xDFFF)
                return fail("unpaired surrogate");
            u = 0x10000 + ((u - 0xD800) << 10) + (low - 0xDC00);
        } else if (u >= 0xDC00 && u <= 0xDFFF) {
            return fail("unpaired surrogate");
        }
        utf8(out, u);
        return true;
    }

    // One UTF-8 character at pos_, checked.
    bool character(std::string& out) {
        const auto c = static_cast<unsigned char>(t_[pos_]);
        const size_t n = c < 0x80         ? 1
                         : (c >> 5) == 6  ? 2
                         : (c >> 4) == 14 ? 3
                         : (c >> 3) == 30 ? 4
                                          : 0;
        if (n == 0 || pos_ + n > t_.size()) return fail("invalid UTF-8");
        unsigned cp = n == 1 ? c : c & (0x7Fu >> n);
        for (size_t k = 1; k < n; ++k) {
            const auto b = static_cast<unsigned char>(t_[pos_ + k]);
            if ((b & 0xC0) != 0x80) return fail("invalid UTF-8");
            cp = cp << 6 | (b & 0x3F);
        }
        if ((n == 2 && cp < 0x80) || (n == 3 && cp < 0x800) || (n == 4 && cp < 0x10000) ||
            cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
            return fail("invalid UTF-8");
        out.append(t_.substr(pos_, n));
        pos_ += n;
        return true;
    }

    bool string(std::string& out) {
        ++pos_;
        while (pos_ < t_.size()) {
            const auto c = static_cast<unsigned char>(t_[pos_]);
            if (c == '"') return ++pos_, true;
            if (c < 0x20) return fail("control byte in string");
            if (c == '\\') {
                ++pos_;
                if (!escape(out)) return false;
            } else if (!character(out)) {
                return false;
            }
        }
        return fail("unfinished string");
    }

    std::string_view t_;
    size_t pos_ = 0;
    std::string what_;
};

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
    return Parser(text).document(out, error);
}

}  // namespace jsoncheck
