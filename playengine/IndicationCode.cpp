#include "IndicationCode.h"

#include <climits>

int parseIndicationCode(const char* field, size_t fieldSize) {
    size_t i = 0;
    while (i < fieldSize && (field[i] == ' ' || (field[i] >= '\t' && field[i] <= '\r')))
        ++i;
    bool negative = false;
    if (i < fieldSize && (field[i] == '+' || field[i] == '-')) {
        negative = field[i] == '-';
        ++i;
    }
    long long value = 0;
    for (; i < fieldSize && field[i] >= '0' && field[i] <= '9'; ++i) {
        value = value * 10 + (field[i] - '0');
        if (value > static_cast<long long>(INT_MAX) + 1)
            value = static_cast<long long>(INT_MAX) + 1;
    }
    if (negative)
        value = -value;
    if (value > INT_MAX)
        value = INT_MAX;
    return static_cast<int>(value);
}
