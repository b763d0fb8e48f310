#include "JsonValue.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

class JsonParser {
public:
    explicit JsonParser(const std::string& text) : mText(text) {}

    bool document(JsonValue* value) { return parseValue(value, 0) && atEnd(); }

private:
    static const int kMaxDepth = 64;

    bool atEnd() {
        while (mAt < mText.size() && strchr(" \t\r\n", mText[mAt]) != nullptr)
            ++mAt;
        return mAt == mText.size();
    }
    // Takes `c` after white space; whether it was there.
    bool take(char c) {
        if (atEnd() || mText[mAt] != c)
            return false;
        ++mAt;
        return true;
    }
    bool literal(const char* word) {
        const size_t length = strlen(word);
        if (mText.compare(mAt, length, word) != 0)
            return false;
        mAt += length;
        return true;
    }
    // The comma-separated items of an object or array, up to `close`.
    template <typename Item>
    bool items(char close, Item item) {
        if (take(close))
            return true;
        do {
            if (!item())
                return false;
        } while (take(','));
        return take(close);
    }

    bool parseString(std::string* out) {
        if (!take('"'))
            return false;
        while (mAt < mText.size()) {
            const char c = mText[mAt++];
            if (c == '"')
                return true;
            if (static_cast<unsigned char>(c) < 0x20)
                return false;
            if (c != '\\') {
                *out += c;
                continue;
            }
            const char escape = mAt < mText.size() ? mText[mAt++] : '\0';
            static const char kFrom[] = "\"\\/bfnrt";
            static const char kTo[] = "\"\\/\b\f\n\r\t";
            const char* found = escape != '\0' ? strchr(kFrom, escape) : nullptr;
            if (found != nullptr) {
                *out += kTo[found - kFrom];
            } else if (escape == 'u' && mAt + 4 <= mText.size()) {
                const unsigned long code = strtoul(mText.substr(mAt, 4).c_str(), nullptr, 16);
                mAt += 4;
                *out += code < 0x80 ? static_cast<char>(code) : '?';
            } else {
                return false;
            }
        }
        return false;
    }

    bool parseValue(JsonValue* value, int depth) {
        if (depth > kMaxDepth || atEnd())
            return false;
        if (take('{')) {
            return items('}', [&] {
                std::string key;
                return parseString(&key) && take(':') &&
                       parseValue(&value->mObject[key], depth + 1);
            });
        }
        if (take('[')) {
            return items(']', [&] {
                value->mArray.emplace_back();
                return parseValue(&value->mArray.back(), depth + 1);
            });
        }
        if (mText[mAt] == '"')
            return parseString(&value->mString);
        if (literal("true")) {
            value->mBoolean = true;
            return true;
        }
        if (literal("false") || literal("null"))
            return true;
        const char* begin = mText.c_str() + mAt;
        if (*begin != '-' && !isdigit(static_cast<unsigned char>(*begin)))
            return false;
        char* end = nullptr;
        value->mNumber = strtod(begin, &end);
        mAt += static_cast<size_t>(end - begin);
        return end != begin;
    }

    const std::string& mText;
    size_t mAt = 0;
};

bool JsonValue::parse(const std::string& text, JsonValue* value) {
    *value = JsonValue();
    return JsonParser(text).document(value);
}

const JsonValue& JsonValue::operator[](const std::string& key) const {
    static const JsonValue kNull;
    auto found = mObject.find(key);
    return found != mObject.end() ? found->second : kNull;
}
