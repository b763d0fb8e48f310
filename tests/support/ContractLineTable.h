// A table of log lines whose text is part of the engine's contract, one parameterised case
// per line: the category and function the line is logged under, its text, how often one run
// of `provoke` logs it, and `provoke` itself, which takes the suite's own benches.
//
//   using Line = ContractLine<MyBench>;
//   class MyContractLine : public testing::TestWithParam<Line> {};
//   INSTANTIATE_TEST_SUITE_P(Lines, MyContractLine, testing::Values(Line{...}, ...),
//                            ContractLineName());
#ifndef TAVO_TESTS_SUPPORT_CONTRACT_LINE_TABLE_H
#define TAVO_TESTS_SUPPORT_CONTRACT_LINE_TABLE_H

#include <gtest/gtest.h>

#include <functional>
#include <ostream>
#include <string>

template <typename... Benches>
struct ContractLine {
    const char* name;  // the case's name
    const char* category;
    const char* function;
    std::string text;
    std::function<void(Benches&...)> provoke;
    int count = 1;
};

// Prints a line by its case name, not its bytes.
template <typename... Benches>
void PrintTo(const ContractLine<Benches...>& line, std::ostream* out) {
    *out << line.name;
}

// Names each instantiated case after its line.
struct ContractLineName {
    template <typename Line>
    std::string operator()(const testing::TestParamInfo<Line>& info) const {
        return info.param.name;
    }
};

#endif  // TAVO_TESTS_SUPPORT_CONTRACT_LINE_TABLE_H
