// The command line of the player. See the header.

#include "player_options.h"

#include <cstdlib>
#include <vector>

using namespace libquarrin;

// Times as the names of the files have them, in UTC.
static bool ParseTime(const char *text, time_t &time)
{
    tm parts = {};
    const char *end = strptime(text, "%Y-%m-%d-%H-%M-%S", &parts);
    time = timegm(&parts);
    return end != nullptr && *end == '\0';
}

static bool ParseNumber(const char *text, uint32_t most, uint32_t &number)
{
    char *end = nullptr;
    const unsigned long long value = strtoull(text, &end, 10);
    number = static_cast<uint32_t>(value);
    return text[0] >= '0' && text[0] <= '9' && *end == '\0' && value <= most;
}

static bool ParseOption(Options &options, const std::string &word, const char *value)
{
    uint32_t number = 0;
    if (word == "--seek" && value != nullptr)
    {
        return ParseNumber(value, INT32_MAX, options.seek);
    }
    if (word == "--output" && value != nullptr)
    {
        options.output = value;
        return true;
    }
    if (word == "--volume" && value != nullptr && ParseNumber(value, QN_VOLUME_COUNT - 1, number))
    {
        options.volume = static_cast<QN_VOLUME_ID_E>(number);
        return true;
    }
    return false;
}

bool ParseOptions(Options &options, int argc, char **argv)
{
    if (argc < 4)
    {
        return false;
    }
    options.device = argv[1];
    options.mountPoint = argv[2];
    options.command = argv[3];
    std::vector<const char *> words; // those without dashes
    for (int i = 4; i < argc; i++)
    {
        const std::string word = argv[i];
        options.keys = options.keys || word == "--keys";
        options.fast = options.fast || word == "--fast";
        if (word.rfind("--", 0) != 0)
        {
            words.push_back(argv[i]);
        }
        else if (word != "--keys" && word != "--fast" &&
                 !ParseOption(options, word, argv[++i])) // argv ends with a null
        {
            return false;
        }
    }
    if (options.command == "play" && words.size() == 1)
    {
        options.name = words[0];
        return options.name.find('/') == std::string::npos; // a name, not a path
    }
    return options.command == "list" && words.size() <= 2 && (words.empty() || ParseTime(words[0], options.from)) &&
           (words.size() < 2 || ParseTime(words[1], options.to));
}
