#include "support/printed.h"

#include <regex>
#include <sstream>

#include "support/capture.h"

std::string TEST_Printed(const std::function<void()> &fn)
{
    std::string strPrinted;
    {
        STDOUT_CAPTURE capture;
        fn();
        strPrinted = capture.Text();
    }
    static const std::regex monitor(R"(\[QN_STORAGE_HotplugThread:\d+\] [^\n]*\n)");
    return std::regex_replace(strPrinted, monitor, "");
}

bool TEST_HasLine(const std::string &strText, const std::string &strPattern)
{
    const std::regex pattern(strPattern);
    std::istringstream lines(strText);
    std::string strLine;
    while (std::getline(lines, strLine))
    {
        if (std::regex_match(strLine, pattern))
        {
            return true;
        }
    }
    return false;
}

std::string TEST_Plain(const std::string &strText)
{
    static const std::regex special(R"([.\[\]\\(){}*+?^$|])");
    return std::regex_replace(strText, special, R"(\$&)");
}
