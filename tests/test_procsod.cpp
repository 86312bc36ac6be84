// Programs of the start and the end of the day. Files before and after are written down.
#include "core/context.h"
#include "core/procsod.h"
#include "support/files.h"
#include "support/leftovers.h"

using Text = std::string;

namespace {

Text File() { return TestHome() + "/config/procmgr.cfg"; }

// A file of "NAME=ORDER" words; names of the other category begin with "e", order "-" is missing,
// and "#" is a stanza of no category.
Text Stanzas(const Text& words) {
    Text all;
    for (const Text& word : Split(words, ' ')) {
        const Text name = word.substr(0, word.find('=')), order = word.substr(name.size() + 1);
        const Text category = name[0] == 'e' ? "End of Day:" : name == "#" ? "" : "Start of Day:";
        all += "[" + category + name + "]\n" + (order == "-" ? "" : "Run order=" + order + "\n");
    }
    return all;
}

// The words of the file as it is.
Text Words() {
    Text all;
    for (const Text& line : Split(ReadFile(File()))) {
        const auto start = std::max(line.rfind(':') + 1, Text::size_type{1});  // behind the bracket
        if (line.starts_with("["))
            all += (all.empty() ? "" : " ") + line.substr(start, line.size() - 1 - start) + "=";
        if (line.starts_with("Run order=")) all += line.substr(10);
    }
    return all;
}

}  // namespace

TEST(ProcSod, WhereAProgramGoes) {
    const struct {
        const char* before;
        bool ahead;
        const char* point;
        const char* after;  // null: refused
    } cases[] = {
        {"", false, nullptr, "n=0"},
        {"", true, nullptr, "n=0"},
        {"", true, "a", nullptr},
        {"#=7 e1=3", false, nullptr, "#=7 e1=3 n=0"},
        {"#=7 e1=3", false, "e1", nullptr},  // of the other list
        {"a=5 e1=3 b=9", false, nullptr, "a=1 e1=3 b=2 n=3"},
        {"a=5 e1=3 b=9", true, nullptr, "n=1 a=2 e1=3 b=3"},
        {"a=5 e1=3 b=9", false, "a", "a=1 n=2 e1=3 b=3"},
        {"a=5 e1=3 b=9", true, "B", "a=1 e1=3 n=2 b=3"},
        // The order of the file is not that of the list.
        {"a=9 b=2 c=-", false, nullptr, "a=3 n=4 b=2 c=1"},
        {"a=9 b=2 c=x", true, "b", "a=4 n=2 b=3 c=1"},
        {"a=10 b=9 c=-5", false, "c", "a=4 b=3 c=1 n=2"},
        // Listed once: the old place is forgotten, also as the insertion point.
        {"n=1 a=2 N=3", true, "a", "n=1 a=2"},
        {"n=4", false, nullptr, "n=0"},
        {"n=1 a=2", true, "n", nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(Text(c.before) + (c.ahead ? " <" : " >") + (c.point ? c.point : ""));
        const Text old = Stanzas(c.before);
        WriteInHome("config/procmgr.cfg", old);
        const Leftovers leftovers;
        EXPECT_EQ(ProcInsertSODProcess("n", TRUE, FALSE, TRUE, FALSE, c.ahead, c.point),
                  BooleanFrom(c.after != nullptr));
        EXPECT_EQ(leftovers.Text(), "");
        EXPECT_EQ(c.after == nullptr ? ReadFile(File()) : Words(),
                  c.after == nullptr ? old : c.after);
    }
}

TEST(ProcSod, WhatIsWritten) {
    unlink(File().c_str());
    EXPECT_EQ(ProcAddSODProcessToEnd("late", TRUE, FALSE, TRUE, FALSE), TRUE);
    EXPECT_EQ(ProcAddSODProcessToBegining("early", FALSE, TRUE, FALSE, TRUE), TRUE);
    EXPECT_EQ(ProcAddEODProcessToEnd("late", TRUE, FALSE, 30), TRUE);
    EXPECT_EQ(ProcAddEODProcessToBegining("early", FALSE, TRUE, 0), TRUE);
    EXPECT_EQ(ProcInsertEODProcess("mid", TRUE, TRUE, -1, FALSE, "early"), TRUE);
    EXPECT_EQ(ReadFile(File()),
              "[Start of Day:early]\nRun on Server=false\nRun on Client=true\nOptional=true\n"
              "Wait for Ready=false\nRun order=1\n\n"
              "[Start of Day:late]\nRun on Server=true\nRun on Client=false\nOptional=false\n"
              "Wait for Ready=true\nRun order=2\n\n"
              "[End of Day:early]\nRun on Server=false\nRun on Client=true\nRun order=1\n\n"
              "[End of Day:mid]\nRun on Server=true\nRun on Client=true\nWait=-1\nRun order=2\n\n"
              "[End of Day:late]\nRun on Server=true\nRun on Client=false\nWait=30\n"
              "Run order=3\n\n");
    EXPECT_EQ(ProcAddSODProcessToEnd("", TRUE, TRUE, TRUE, TRUE), FALSE);
    EXPECT_EQ(ProcAddEODProcessToEnd(nullptr, TRUE, TRUE, 0), FALSE);
    EXPECT_EQ(Words(), "early=1 late=2 early=1 mid=2 late=3");
}
