// What a call prints on standard output, as a text. Expectations are put to it outside, where gtest's own output shows.
#ifndef QUARRIN_TESTS_PRINTED_H
#define QUARRIN_TESTS_PRINTED_H

#include <functional>
#include <string>

/// What everything that fn does prints on standard output; without the lines of hotplug monitors, which tell of any
/// device of the machine that comes or goes meanwhile.
std::string TEST_Printed(const std::function<void()> &fn);

/// A whole line of the text fits an ECMAScript regular expression.
bool TEST_HasLine(const std::string &strText, const std::string &strPattern);

/// The text as a regular expression that fits it alone.
std::string TEST_Plain(const std::string &strText);

#endif
