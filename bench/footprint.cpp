// footprint QUESTION: measures what the library costs its host. Prints a line "FIGURE VALUE" for each figure;
// footprint.sh asks everything and compares with budgets.txt.

#include <cstdio>
#include <cstring>

#include "questions.h"
#include "rig.h"

struct QUESTION_S
{
    const char *pszName;
    void (*pfnAsk)();
};

static const QUESTION_S QUESTIONS[] = {
    {"record", ASK_Record},   {"frames", ASK_Frames}, {"replay", ASK_Replay},   {"stack", ASK_Stack},
    {"threads", ASK_Threads}, {"idle", ASK_Idle},     {"listing", ASK_Listing}, {"time", ASK_ListingTime},
};

int main(int argc, char **argv)
{
    for (const QUESTION_S &stQuestion : QUESTIONS)
    {
        if (argc == 2 && strcmp(argv[1], stQuestion.pszName) == 0)
        {
            RIG_Silence();
            stQuestion.pfnAsk();
            return 0;
        }
    }
    (void)fprintf(stderr, "usage: %s record|frames|replay|stack|threads|idle|listing|time\n", argv[0]);
    return 2;
}
