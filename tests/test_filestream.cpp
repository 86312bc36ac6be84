#include "core/filestream.h"
#include "core/strfile.h"
#include "support/files.h"
#include "support/leftovers.h"

namespace {

using Text = std::string;

FileStreamO Open(const Name& path, FileModeT mode) {
    FileStreamO stream = nullptr;
    EXPECT_EQ(FileStreamOpen(&stream, path, mode), TRUE);
    return stream;
}

BooleanT OpenLocking(FileStreamO* stream, const Name& path, int32 mode) {
    return FileStreamOpenTags(stream, OBJ_TAG_BEGIN, FileStreamTagPathName, path.c_str(),
                              FileStreamTagOpenMode, mode, FileStreamTagLocking, TRUE, OBJ_TAG_END);
}

BooleanT Write(FileStreamO stream, const Text& text) {
    return FileStreamWrite(stream, reinterpret_cast<const ByteT*>(text.data()),
                           static_cast<int32>(text.size()));
}

Text ReadAll(FileStreamO stream) {
    Text text(1000, 0);
    std::size_t count = 0;
    EXPECT_EQ(FileStreamRead(stream, text.data(), 1000, &count), TRUE);
    return text.substr(0, count);
}

TEST(FileStream, WhatEachModeAllows) {
    // The modes; the file, which held "old", after writing "new" where that goes; whether it can be
    // read, changed and made.
    const std::tuple<std::vector<FileModeT>, Text, bool, bool, bool> table[] = {
        {{257, 513}, "old", true, false, false},
        {{258, 514}, "new", false, false, true},
        {{259, 515}, "oldnew", false, false, true},
        {{260, 261, 516, 517}, "old", true, true, true}};
    const NothingLeft nothing;
    for (const auto& [modes, after, reads, changes, creates] : table) {
        for (const FileModeT mode : modes) {
            SCOPED_TRACE(mode);
            const Dir dir;
            WriteFile(dir("f"), "old");
            FileStreamO stream = Open(dir("f"), mode);
            ByteT byte = 1;
            EXPECT_EQ(FileStreamReadByte(stream, &byte), BooleanFrom(reads));
            EXPECT_EQ(byte, reads ? 'o' : 0);
            EXPECT_EQ(Write(stream, "new"), BooleanFrom(after != "old"));
            EXPECT_EQ(FileStreamStartAppend(stream), BooleanFrom(changes));
            EXPECT_EQ(FileStreamCancelRewrite(stream), FALSE);
            EXPECT_EQ(FileStreamStartRewrite(stream), BooleanFrom(changes));
            EXPECT_EQ(Exists(dir("f.new")), changes);
            EXPECT_EQ(FileStreamCancelRewrite(stream), BooleanFrom(changes));
            EXPECT_EQ(FileStreamCloseOutput(stream), FALSE);
            EXPECT_EQ(FileStreamClose(&stream), TRUE);
            EXPECT_EQ(stream, nullptr);
            EXPECT_EQ(ReadFile(dir("f")), after);
            EXPECT_EQ(ListDir(dir.Path()), std::vector<Text>{"f"});
            EXPECT_EQ(FileStreamOpen(&stream, dir("made"), mode), BooleanFrom(creates));
            if (stream != nullptr) FileStreamClose(&stream);
        }
    }
}

TEST(FileStream, RewriteReplacesTheFileInOneStep) {
    const Dir dir;
    const NothingLeft nothing;
    WriteFile(dir("f"), "old content");
    WriteFile(dir("f.new"), "left behind by a process that was stopped");
    chmod(dir("f"), 0640);
    FileStreamO reader = Open(dir("f"), 257), stream = Open(dir("f"), 516);
    const char* path = nullptr;
    EXPECT_EQ(FileStreamGetPath(&path, stream), TRUE);
    EXPECT_EQ(Text(path), dir("f"));

    ASSERT_EQ(FileStreamStartRewrite(stream), TRUE);
    EXPECT_EQ(ReadFile(dir("f.new")), "");
    EXPECT_EQ(FileStreamPrintF(stream, "%s %d", "new", 1), TRUE);
    EXPECT_EQ(ReadAll(stream), "old content");
    EXPECT_EQ(ReadFile(dir("f")), "old content");
    EXPECT_EQ(FileStreamCloseOutput(stream), TRUE);
    EXPECT_EQ(ReadAll(stream), "new 1");

    EXPECT_TRUE(FileStreamStartAppend(stream) && FileStreamWriteByte(stream, '!'));
    // Starting the next output finishes this one.
    ASSERT_EQ(FileStreamStartRewrite(stream), TRUE);
    EXPECT_EQ(ReadAll(stream), "new 1!");
    EXPECT_TRUE(Write(stream, "dropped") && FileStreamCancelRewrite(stream));
    EXPECT_EQ(ReadAll(stream), "new 1!");
    EXPECT_TRUE(FileStreamStartRewrite(stream) && Write(stream, "last"));
    EXPECT_EQ(FileStreamClose(&stream), TRUE);
    EXPECT_EQ(ReadAll(reader), "old content");
    EXPECT_EQ(FileStreamClose(&reader), TRUE);
    // Without closing, what was written is dropped.
    stream = Open(dir("f"), 260);
    EXPECT_TRUE(FileStreamStartRewrite(stream) && Write(stream, "dropped"));
    ObjRelease(&stream);
    EXPECT_EQ(ReadFile(dir("f")), "last");
    EXPECT_EQ(ModeOf(dir("f")) & 07777, 0640U);
    EXPECT_EQ(ListDir(dir.Path()), std::vector<Text>{"f"});
}

TEST(FileStream, Positions) {
    const Dir dir;
    WriteFile(dir("f"), "0123456789");
    FileStreamO stream = Open(dir("f"), 257);
    fpos_t place;
    int32 offset = 0;
    // Whether the move was made, and what stands there.
    const auto at = [&](BooleanT moved) {
        ByteT byte = 0;
        const bool read = FileStreamReadByte(stream, &byte) == TRUE;
        return std::to_string(moved) + (read ? static_cast<char>(byte) : '-');
    };
    EXPECT_EQ(FileStreamSeekFromLong(stream, 4), TRUE);
    EXPECT_EQ(at(FileStreamGetOffset(&place, stream)), "14");
    EXPECT_EQ(at(FileStreamSeekRelative(stream, -2)), "13");
    EXPECT_EQ(at(FileStreamSeekRelative(stream, -40)), "04");
    EXPECT_EQ(at(FileStreamSeekEnd(stream)), "1-");
    EXPECT_EQ(ReadAll(stream), "");
    EXPECT_EQ(FileStreamGetOffsetLong(&offset, stream), TRUE);
    EXPECT_EQ(offset, 10);
    EXPECT_EQ(at(FileStreamSeek(stream, place)), "14");
    EXPECT_EQ(at(FileStreamSeekStart(stream)), "10");
    // A position that 32 bits do not hold.
    EXPECT_EQ(truncate(dir("f"), off_t{1} << 31), 0);
    EXPECT_EQ(FileStreamSeekEnd(stream), TRUE);
    EXPECT_EQ(FileStreamGetOffsetLong(&offset, stream), FALSE);
    EXPECT_EQ(FileStreamSeekRelative(stream, -1), TRUE);
    EXPECT_EQ(FileStreamGetOffsetLong(&offset, stream), TRUE);
    EXPECT_EQ(offset, INT32_MAX);
    EXPECT_EQ(FileStreamClose(&stream), TRUE);
}

TEST(FileStream, FailuresAreTraced) {
    const Dir dir;
    const NothingLeft nothing;
    FileStreamO stream = nullptr;
    const TraceCapture trace;
    EXPECT_EQ(FileStreamOpen(&stream, "", 257), FALSE);
    EXPECT_EQ(trace.Level("FILE", 529), -1);
    EXPECT_EQ(OpenLocking(&stream, dir("none/f"), 516), FALSE);
    EXPECT_EQ(trace.Text("FILE", 528), "FileStreamOpenTags - Failed to open lock file");
    EXPECT_EQ(OpenLocking(&stream, dir("f"), 257), FALSE);
    EXPECT_EQ(trace.CountText("Failed to open file stream '" + dir("f") + "'"), 1);
    EXPECT_EQ(ListDir(dir.Path()), std::vector<Text>{"f.lck"});
    EXPECT_EQ(FileStreamOpen(&stream, dir.Path().c_str(), 257), FALSE);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(stream, nullptr);
    ASSERT_EQ(OpenLocking(&stream, dir("f"), 516), TRUE);
    EXPECT_EQ(FileStreamWriteByte(stream, 7) + FileStreamPrintF(stream, "x"), FALSE);
    EXPECT_EQ(trace.Level("FILE", 18), 3);
    EXPECT_TRUE(FileStreamStartAppend(stream) && Write(stream, ""));
    EXPECT_EQ(FileStreamWrite(stream, nullptr, -1), FALSE);
    EXPECT_EQ(trace.Count("FILE", 19), 1);
    EXPECT_EQ(FileStreamClose(&stream), TRUE);
    EXPECT_EQ(FileStreamClose(&stream), FALSE);
}

// Which locks another process could get while a stream is open.
TEST(FileStream, LocksFollowTheMode) {
    const Dir dir;
    WriteFile(dir("f"), "");
    const auto free = [&](const char* name, FileLockT lock) {
        return LockIsFree(dir(name), lock) ? "1" : "0";
    };
    // The mode; whether the lock file's shared and exclusive and the file's shared lock are free.
    const std::pair<int32, Text> table[] = {
        {257, "101"}, {515, "100"}, {516, "001"}, {261, "001"}, {258, "100"}};
    for (const auto& [mode, expected] : table) {
        FileStreamO stream = nullptr;
        ASSERT_EQ(OpenLocking(&stream, dir("f"), mode), TRUE);
        if (FileStreamStartRewrite(stream) == TRUE) {
            EXPECT_EQ(FileStreamCloseOutput(stream), TRUE);
        }
        const Text locks = free("f.lck", FileLockShared) + Text(free("f.lck", FileLockExclusive));
        EXPECT_EQ(locks + free("f", FileLockShared), expected) << mode;
        EXPECT_EQ(FileStreamClose(&stream), TRUE);
        EXPECT_TRUE(LockIsFree(dir("f.lck"), FileLockExclusive));
    }
}

TEST(StrFile, CharactersThereAndBack) {
    const Dir dir;
    FileStreamO stream = Open(dir("f"), 258);
    for (const int character : {0x61, 0xd, 0x82a0, 0x8200, 0xa0, 0xe90d, 0xd, 0x81})
        EXPECT_EQ(StrFileWriteChar(stream, character), TRUE);
    EXPECT_EQ(StrFileWriteString(stream, ""), TRUE);
    EXPECT_EQ(FileStreamClose(&stream), TRUE);
    EXPECT_EQ(ReadFile(dir("f")), Text("a\r\x82\xa0\x82\0\xa0\xe9\r\r\x81", 11));
    stream = Open(dir("f"), 257);
    std::vector<int> read;
    const TraceCapture trace;
    for (int character = 0; StrFileReadChar(stream, &character) == TRUE;) read.push_back(character);
    EXPECT_EQ(read, (std::vector<int>{0x61, 0x82a0, 0x8200, 0xa0, 0xe90d}));
    EXPECT_EQ(trace.Text("STRING", 6), "Failed to read byte from stream");
    EXPECT_EQ(FileStreamClose(&stream), TRUE);
}

}  // namespace
