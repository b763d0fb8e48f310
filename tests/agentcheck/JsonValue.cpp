#include "JsonValue.h"

#include <cstdlib>
#include <cstring>

class JsonParser {
public:
    explicit JsonParser(const std::string& text) : mText(text) {}

    bool document(JsonValue* value) {
        if (!parseValue(value, 0))
            return false;
        skipSpace();
        return mAt == mText.size();
    }

private:
    static const int kMaxDepth = 64;

    void skipSpace() {
        while (mAt < mText.size() && strchr(" \t\r\n", mText[mAt]) != nullptr)
            ++mAt;
    }
    bool literal(const char* word) {
        size_t length = strlen(word);
        if (mText.compare(mAt, length, word) != 0)
            return false;
        mAt += length;
        return true;
    }

    bool parseString(std::string* out) {
        if (mAt >= mText.size() || mText[mAt] != '"')
            return false;
        ++mAt;
        while (mAt < mText.size()) {
            char c = mText[mAt++];
            if (c == '"')
                return true;
            if (static_cast<unsigned char>(c) < 0x20)
                return false;
            if (c != '\\') {
                *out += c;
                continue;
            }
            if (mAt >= mText.size())
                return false;
            char escape = mText[mAt++];
            const char* from = "\"\\/bfnrt";
            const char* to = "\"\\/\b\f\n\r\t";
            const char* found = strchr(from, escape);
            if (escape != 'u' && found != nullptr && escape != '\0') {
                *out += to[found - from];
            } else if (escape == 'u' && mAt + 4 <= mText.size()) {
                unsigned long code = strtoul(mText.substr(mAt, 4).c_str(), nullptr, 16);
                mAt += 4;
                *out += code < 0x80 ? static_cast<char>(code) : '?';
            } else {
                return false;
            }
        }
        return false;
    }

    bool parseValue(JsonValue* value, int depth) {
        if (depth > kMaxDepth)
            return false;
        skipSpace();
        if (mAt >= mText.size())
            return false;
        char c = mText[mAt];
        if (c == '{') {
            value->mKind = JsonValue::OBJECT;
            ++mAt;
            skipSpace();
            if (mAt < mText.size() && mText[mAt] == '}') {
                ++mAt;
                return true;
            }
            for (;;) {
                skipSpace();
                std::string key;
                if (!parseString(&key))
                    return false;
                skipSpace();
                if (mAt >= mText.size() || mText[mAt++] != ':')
                    return false;
                if (!parseValue(&value->mObject[key], depth + 1))
                    return false;
                skipSpace();
                if (mAt < mText.size() && mText[mAt] == ',') {
                    ++mAt;
                    continue;
                }
                return mAt < mText.size() && mText[mAt++] == '}';
            }
        }
        if (c == '[') {
            value->mKind = JsonValue::ARRAY;
            ++mAt;
            skipSpace();
            if (mAt < mText.size() && mText[mAt] == ']') {
                ++mAt;
                return true;
            }
            for (;;) {
                value->mArray.emplace_back();
                if (!parseValue(&value->mArray.back(), depth + 1))
                    return false;
                skipSpace();
                if (mAt < mText.size() && mText[mAt] == ',') {
                    ++mAt;
                    continue;
                }
                return mAt < mText.size() && mText[mAt++] == ']';
            }
        }
        if (c == '"') {
            value->mKind = JsonValue::STRING;
            return parseString(&value->mString);
        }
        if (literal("true") || literal("false")) {
            value->mKind = JsonValue::BOOLEAN;
            value->mBoolean = mText[mAt - 1] == 'e' && mText[mAt - 2] == 'u';
            return true;
        }
        if (literal("null")) {
            value->mKind = JsonValue::NUL;
            return true;
        }
        const char* begin = mText.c_str() + mAt;
        char* end = nullptr;
        value->mNumber = strtod(begin, &end);
        if (end == begin || (c != '-' && (c < '0' || c > '9')))
            return false;
        value->mKind = JsonValue::NUMBER;
        mAt += static_cast<size_t>(end - begin);
        return true;
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
