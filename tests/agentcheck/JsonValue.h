// A small JSON reader for the tests of tools' machine-readable output: parses a whole
// document strictly and gives access to objects, arrays, strings, numbers and booleans. A
// member or accessor of the wrong kind gives an empty value (false, 0, "", no items).
#ifndef TAVO_TESTS_AGENTCHECK_JSON_VALUE_H
#define TAVO_TESTS_AGENTCHECK_JSON_VALUE_H

#include <map>
#include <string>
#include <vector>

class JsonValue {
public:
    // Parses text (one value, surrounded only by white space); false when it is not JSON.
    static bool parse(const std::string& text, JsonValue* value);

    bool boolean() const { return mBoolean; }
    double number() const { return mNumber; }
    const std::string& string() const { return mString; }
    const std::vector<JsonValue>& array() const { return mArray; }
    // The member `key`; a null value when there is none.
    const JsonValue& operator[](const std::string& key) const;

private:
    friend class JsonParser;
    bool mBoolean = false;
    double mNumber = 0;
    std::string mString;
    std::vector<JsonValue> mArray;
    std::map<std::string, JsonValue> mObject;
};

#endif  // TAVO_TESTS_AGENTCHECK_JSON_VALUE_H
