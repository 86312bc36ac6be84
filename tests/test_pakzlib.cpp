// The archive writer and reader as a program on the library uses them. Archives are compared with
// ones made from the format alone.
#include "core/filesys.h"
#include "core/objserial.h"
#include "support/archives.h"
#include "support/lists.h"

using bytes::Byte;
using bytes::Long;

namespace {

std::string FromHex(const std::string& text) {
    std::string out;
    for (std::size_t at = 0; at < text.size(); at += 3)
        out += static_cast<char>(std::stoi(text.substr(at, 2), nullptr, 16));
    return out;
}

class PakZlib : public ArchiveTest {
 protected:
    void TearDown() override {
        EXPECT_EQ(ListDir(TmpDir), std::vector<std::string>());
        PakZlibUseWorkers(PakZlibAllProcessors);
    }
    std::string Put(const std::string& name, const std::string& content) {
        WriteFile(m_dir / name, content);
        return m_dir / name;
    }
    PakZlibContextO Open() {
        PakZlibContextO oContext = nullptr;
        EXPECT_EQ(PakZlibInitialize(&oContext, m_archive.c_str()), TRUE);
        return oContext;
    }
    void ExpectFinished(PakZlibContextO oContext, const std::vector<bytes::File>& files) {
        ASSERT_EQ(PakZlibFinalize(&oContext), TRUE);
        EXPECT_TRUE(ReadFile(m_archive) == bytes::Archive(files));
    }
    NothingLeft m_nothing;
};

// --- the format ---

TEST_F(PakZlib, SmallestArchiveByteForByte) {
    PakZlibContextO oContext = Open();
    ASSERT_EQ(PakZlibCompressFile(oContext, Put("empty", "").c_str(), nullptr), TRUE);
    ASSERT_EQ(PakZlibFinalize(&oContext), TRUE);
    EXPECT_EQ(oContext, nullptr);
    EXPECT_TRUE(ReadFile(m_archive) ==
                FromHex("6a 00 00 00 "                                // length of the header list
                        "01 b9 f9 a2 c8 00 00 00 00 01 00 00 00 00 "  // a list of one, no cookie
                        "01 47 d7 06 ca 11 00 00 00 "
                        "73 3b 73 3b 69 3b 69 3b 69 3b 6f 3b 6f 3b 6f 3b 00 "  // its shape
                        "06 00 00 00 65 6d 70 74 79 00 00 00 00 00 "           // name, no path
                        "08 00 00 00 00 00 00 00 01 00 00 00 "                 // lengths, chunks
                        "01 b9 f9 a2 c8 00 00 00 00 01 00 00 00 00 "
                        "01 2a f2 6c c9 03 00 00 00 69 3b 00 08 00 00 00 "
                        "b9 f9 a2 c8 00 00 b9 f9 a2 c8 "
                        "78 9c 03 00 00 00 00 01 "));
}

TEST_F(PakZlib, EverySizeIsPackedByTheFormatAndRestored) {
    for (const std::size_t size : {0, 1, 65535, 65536, 65537, 131072, 3000001}) {
        for (const bool text : {true, false}) {
            SCOPED_TRACE(std::to_string(size) + (text ? " of text" : " at random"));
            const std::string content = (text ? bytes::RandomText : bytes::RandomBytes)(size, 1);
            const std::string expected = bytes::Archive({bytes::Chunked("stored", content)});
            const std::string path = Put("source", content);
            for (const int32 workers : {0, 1, 2, 7, PakZlibAllProcessors}) {
                PakZlibUseWorkers(workers);
                PakZlibContextO oContext = Open();
                ASSERT_EQ(PakZlibCompressFile(oContext, path.c_str(), "a/b/stored"), TRUE);
                ASSERT_EQ(PakZlibFinalize(&oContext), TRUE);
                EXPECT_TRUE(ReadFile(m_archive) == expected) << workers;
                ASSERT_EQ(Restore(), TRUE);
                EXPECT_TRUE(Restored("stored") == content) << workers;
                std::remove(m_archive.c_str());
            }
        }
    }
}

TEST_F(PakZlib, FileListIsPackedInOrderUnderLeafNames) {
    const std::string first = bytes::RandomText(70000, 3);
    mkdir((m_dir / "sub").c_str(), 0700);
    const ObjHolder<ListS> oPaths(ListOf(
        {Put("first", first).c_str(), Put("sub/second", "2").c_str(), Put("3rd", "").c_str()}));
    PakZlibContextO oContext = Open();
    EXPECT_EQ(PakZlibCompressFileList(oContext, oPaths.Get()), TRUE);
    ExpectFinished(oContext, {bytes::Chunked("first", first), {"second", {"2"}}, {"3rd", {""}}});
}

// Everything that the format allows is restored, also what this writer would not write.
TEST_F(PakZlib, ForeignArchivesAreRestored) {
    const std::string big = bytes::RandomBytes(65536, 4);
    const std::vector<bytes::File> files = {{"pieces", {"a", "", big, "bc", big}},
                                            {"empty", {""}},
                                            {"same", {"first"}},
                                            {"same", {"2nd"}}};
    ASSERT_EQ(Restore(bytes::Archive(files) + "bytes behind the last chunk"), TRUE);
    EXPECT_TRUE(Restored("pieces") == "a" + big + "bc" + big);
    EXPECT_EQ(Restored("empty"), "");
    EXPECT_EQ(Restored("same"), "2nd");
    EXPECT_EQ(ListDir(m_target), (std::vector<std::string>{"empty", "pieces", "same"}));

    // The lengths and counts of a header are not consulted, the chunk lengths are.
    bytes::FileHeader header = bytes::HeaderOf({"lies", {"truth"}});
    header.compressed = -1;
    header.uncompressed = 0x7fffffff;
    header.chunkCount = -7;
    header.ext = bytes::List({bytes::Integer(1)});
    ASSERT_EQ(Restore(bytes::Archive(bytes::List({header.Encode()}, bytes::FileHeaderMagic),
                                     bytes::Compress("truth"))),
              TRUE);
    EXPECT_EQ(Restored("lies"), "truth");
}

TEST_F(PakZlib, ChunkMayTake131072CompressedBytes) {
    // A zlib stream of exactly this length: empty stored blocks in front of one that holds bytes.
    const auto stream = [](std::size_t size) {
        const std::size_t last = (size - 11) % 5;
        std::string out = FromHex("78 01 ");
        for (std::size_t block = 0; block < (size - 11) / 5; block++)
            out += FromHex("00 00 00 ff ff ");
        const std::string text(last, 'x');
        out += Byte(1) + Byte(static_cast<int>(last)) + Byte(0) +
               Byte(static_cast<int>(~last & 0xff)) + Byte(0xff) + text;
        const std::string packed = bytes::Compress(text);
        return out + packed.substr(packed.size() - 4);  // the check sum
    };
    for (const bool fits : {true, false}) {
        const std::string chunk = stream(fits ? 131072 : 131073);
        ASSERT_EQ(chunk.size(), fits ? 131072U : 131073U);
        bytes::FileHeader header = bytes::HeaderOf({"name", {""}});
        header.chunkLengths = bytes::List({bytes::Integer(static_cast<int32>(chunk.size()))});
        const TraceCapture trace;
        EXPECT_EQ(Restore(bytes::Archive(bytes::List({header.Encode()}), chunk)),
                  BooleanFrom(fits));
        EXPECT_EQ(trace.Has("PAKZLIB", 39), !fits);
        EXPECT_EQ(Restored("name"), fits ? "x" : "");
    }
}

// --- feeding ---

TEST_F(PakZlib, FeedsOfAnySizeAreCollectedIntoChunks) {
    // A feed that would overfill the chunk being collected ends it first.
    const std::string content = bytes::RandomText(7 + 65536 + 1 + 65535 + 0 + 65536 + 100, 5);
    const auto cut = [&](const std::vector<std::size_t>& sizes) {
        std::vector<std::string> pieces;
        std::size_t at = 0;
        for (const std::size_t size : sizes) {
            pieces.push_back(content.substr(at, size));
            at += size;
        }
        return pieces;
    };
    std::vector<std::string> feeds = cut({7, 65536, 1, 65535, 0, 65536, 100});
    PakZlibContextO oContext = Open();
    for (std::string& feed : feeds) {
        // Only the leaf of the name counts.
        const char* name = feed.size() % 2 == 0 ? "fed" : "dir/fed";
        ASSERT_EQ(
            PakZlibCompressInChunks(oContext, name, feed.data(), static_cast<int32>(feed.size()),
                                    BooleanFrom(&feed == &feeds.back())),
            TRUE);
    }
    ExpectFinished(oContext, {{"fed", cut({7, 65536, 65536, 65536, 100})}});
    std::remove(m_archive.c_str());

    // So is a file behind them.
    feeds = cut({7, 65536, 65536, 5});
    const std::string rest = Put("rest", feeds[1] + feeds[2] + feeds[3]);
    oContext = Open();
    ASSERT_EQ(PakZlibCompressInChunks(oContext, "fed", feeds[0].data(), 7, FALSE), TRUE);
    ASSERT_EQ(PakZlibCompressFile(oContext, rest.c_str(), "fed"), TRUE);
    ExpectFinished(oContext, {{"fed", cut({7, 65536, 65536, 5})}});
}

TEST_F(PakZlib, OneFileIsFedAtATime) {
    char acText[] = "text";
    PakZlibContextO oContext = Open();
    ASSERT_EQ(PakZlibCompressInChunks(oContext, "a", acText, 4, FALSE), TRUE);
    const std::string other = Put("other", "other");
    EXPECT_EQ(PakZlibCompressInChunks(oContext, "b", acText, 4, TRUE), FALSE);
    EXPECT_EQ(PakZlibCompressFile(oContext, other.c_str(), nullptr), FALSE);
    // The file being fed is not harmed by that.
    ASSERT_EQ(PakZlibCompressInChunks(oContext, "a", acText, 4, TRUE), TRUE);
    EXPECT_EQ(PakZlibCompressFile(oContext, other.c_str(), nullptr), TRUE);
    // What is still being fed at the end does not count.
    ASSERT_EQ(PakZlibCompressInChunks(oContext, "c", acText, 4, FALSE), TRUE);
    ExpectFinished(oContext, {{"a", {"texttext"}}, {"other", {"other"}}});
}

TEST_F(PakZlib, ObjectsTravelThroughAnArchive) {
    // A string object's stream takes 16 bytes above its text and terminator.
    const std::string fits(65536 - 16 - 1, 'x');
    ObjHolder<ListS> oList(ListNew());
    ObjStringO oLong = ObjStringNew(fits.c_str());
    PakZlibContextO oContext = Open();
    EXPECT_EQ(PakZlibCompressObject(oContext, oLong, "largest"), TRUE);
    ListPushLastItem(oList.Get(), &oLong);
    EXPECT_EQ(PakZlibCompressObject(oContext, oList.Get(), "too large"), FALSE);
    ASSERT_EQ(PakZlibFinalize(&oContext), TRUE);
    ASSERT_EQ(Restore(), TRUE);
    EXPECT_EQ(ListDir(m_target), std::vector<std::string>{"largest"});
    const std::string stream = Restored("largest");
    ObjHolder<void> oAgain;
    ASSERT_EQ(ObjReconstructFromMemorySized(oAgain.Address(), stream.data(),
                                            static_cast<int32>(stream.size())),
              TRUE);
    EXPECT_EQ(ObjGetString(static_cast<ObjStringO>(oAgain.Get())), fits);
}

TEST_F(PakZlib, FileThatGrowsFails) {
    // The system reports size 0 for these and has more to read.
    for (const char* path : {"/proc/version", "/proc/kallsyms"}) {
        PakZlibContextO oContext = Open();
        EXPECT_EQ(PakZlibCompressFile(oContext, path, nullptr), FALSE) << path;
        EXPECT_EQ(ReadFile(m_archive), "");
        EXPECT_EQ(ListDir(TmpDir).size(), 1U);
        EXPECT_EQ(PakZlibCleanupContext(&oContext), TRUE);
        EXPECT_EQ(oContext, nullptr);
        std::remove(m_archive.c_str());
    }
}

// --- files that the caller opened ---

// Whatever is read ahead: the archive stands behind the last chunk that was taken from it, and a
// pipe is asked for no chunk before the one in front of it is written.
TEST_F(PakZlib, NoMoreIsReadThanWasRestored) {
    bytes::File file = {"name", {}};
    for (int chunk = 0; chunk < 9; chunk++)
        file.pieces.push_back(bytes::RandomBytes(65536, static_cast<unsigned>(chunk)));
    bytes::File small = {"name", {}};
    for (const std::string& piece : file.pieces) small.pieces.push_back(piece.substr(0, 1000));
    const auto restore = [&](FileHandleT tHandle, const bytes::File& of) {
        const std::string header = bytes::HeaderOf(of).Encode();
        ObjHolder<void> oHeader;
        EXPECT_EQ(ObjReconstructFromMemorySized(oHeader.Address(), header.data(),
                                                static_cast<int32>(header.size())),
                  TRUE);
        return PakZlibUncompressFile(tHandle, static_cast<PakZlibFileHeaderO>(oHeader.Get()),
                                     m_target.c_str());
    };
    mkdir(m_target.c_str(), 0700);
    for (const std::size_t damaged : {9U, 6U}) {
        std::string chunks = "first";
        int64 end = 0;
        for (std::size_t i = 0; i < 9; i++) {
            std::string chunk = bytes::Compress(file.pieces[i]);
            if (i == damaged) chunk[100] ^= 1;
            chunks += chunk;
            if (i <= damaged) end = static_cast<int64>(chunks.size());
        }
        FileCloser tArchive;
        ASSERT_EQ(FileSysOpen(tArchive.Address(), Put("chunks", chunks + "last").c_str(),
                              FileModeReadBinary),
                  TRUE);
        ASSERT_EQ(FileSysSeek(tArchive.Get(), 5), TRUE);
        PakZlibUseWorkers(7);
        EXPECT_EQ(restore(tArchive.Get(), file), BooleanFrom(damaged == 9));
        int64 offset = 0;
        EXPECT_EQ(FileSysGetOffset(&offset, tArchive.Get()), TRUE);
        EXPECT_EQ(offset, end);
        EXPECT_EQ(Restored("name").size(), 65536U * damaged);
        struct stat status = {};
        ASSERT_EQ(stat((m_target + "/name").c_str(), &status), 0);
        EXPECT_LE(status.st_blocks * 512, 65536 * (static_cast<int64>(damaged) + 1));
    }

    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const std::string restored = m_target + "/name";
    std::remove(restored.c_str());
    const pid_t writer = fork();
    if (writer == 0) {
        close(ends[0]);
        alarm(60);
        for (std::size_t i = 0; i < 9; i++) {
            while (ReadFile(restored).size() < 1000 * i) sched_yield();
            const std::string chunk = bytes::Compress(small.pieces[i]);
            if (write(ends[1], chunk.data(), chunk.size()) != static_cast<ssize_t>(chunk.size()))
                _exit(1);
        }
        _exit(0);
    }
    close(ends[1]);
    const BooleanT bResult = restore(ends[0], small);
    close(ends[0]);
    int status = -1;
    EXPECT_EQ(waitpid(writer, &status, 0), writer);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(bResult, TRUE);
}

TEST_F(PakZlib, OneChunkByItself) {
    const std::string chunk = bytes::Compress("text");
    const auto size = static_cast<int32>(chunk.size());
    // Its length, room for what it expands to, and the number of the failure's message.
    const std::tuple<int32, int32, int32> cases[] = {
        {size, 65536, 0},      {size, 4, 0},        {size, 3, 37},  {size - 1, 65536, 37},
        {size + 1, 65536, 39}, {131073, 65536, 39}, {-1, 65536, 39}};
    std::vector<ByteT> compressed(PakZlibLargestCompressed), expanded(PakZlibChunkSize);
    for (const auto& [length, room, number] : cases) {
        FileCloser tFrom, tTo;
        const std::string from = Put("chunk", chunk), to = m_dir / "to";
        ASSERT_EQ(FileSysOpen(tFrom.Address(), from.c_str(), FileModeReadBinary), TRUE);
        ASSERT_EQ(FileSysOpen(tTo.Address(), to.c_str(), FileModeWriteBinary), TRUE);
        const TraceCapture trace;
        int32 lWritten = -1;
        EXPECT_EQ(PakZlibReadUncompressWrite(&lWritten, length, tFrom.Get(), tTo.Get(),
                                             compressed.data(), expanded.data(), room),
                  BooleanFrom(number == 0));
        EXPECT_EQ(lWritten, number == 0 ? 4 : -1);
        EXPECT_EQ(ReadFile(to), number == 0 ? "text" : "") << length;
        EXPECT_EQ(trace.Has("PAKZLIB", number), number != 0) << length;
    }
}

// --- failures ---

TEST_F(PakZlib, FailuresAreNamed) {
    char acText[65537] = "text";
    const std::string existing = Put("existing", "kept");
    const std::string missing = m_dir / "missing";
    const std::string directory = m_dir.Path();
    const std::string open = m_dir / "open";
    PakZlibContextO oContext = nullptr, oEmpty = nullptr, oNone = nullptr;
    ASSERT_EQ(PakZlibInitialize(&oContext, open.c_str()), TRUE);
    ASSERT_EQ(PakZlibInitialize(&oEmpty, (m_dir / "open2").c_str()), TRUE);
    const ObjHolder<ListS> oNoFiles(ListNew());
    const std::tuple<std::function<BooleanT()>, int32, std::string> cases[] = {
        {[&] { return PakZlibInitialize(&oNone, existing.c_str()); }, 6,
         "Invalid output file for PakZlibInitialize"},
        {[&] { return PakZlibInitialize(&oNone, directory.c_str()); }, 3,
         "Failed to open output file for PakZlib (" + directory + ")"},
        {[&] { return PakZlibCompressFile(oContext, directory.c_str(), "n"); }, 21,
         "PakZlib does not support directories"},
        {[&] { return PakZlibCompressFile(oContext, missing.c_str(), "n"); }, 22,
         "File " + missing + " does not exist"},
        {[&] { return PakZlibCompressInChunks(oContext, "n", acText, 65537, TRUE); }, 32,
         "Invalid args to PakZlibCompressInChunks"},
        {[&] { return PakZlibCompressFileList(oContext, oNoFiles.Get()); }, 18,
         "No input files specified for PakZlib"},
        {[&] { return PakZlibFinalize(&oEmpty); }, 8, "No compressed file headers"},
        {[&] { return PakZlibUncompress(missing.c_str(), m_target.c_str()); }, 46,
         "Supplied compressed file " + missing + " does not exist"},
        {[&] { return PakZlibUncompress(existing.c_str(), (missing + "/t").c_str()); }, 48,
         "Failed to create target uncompress directory " + missing + "/t"},
    };
    for (const auto& [call, number, text] : cases) {
        const TraceCapture trace;
        EXPECT_EQ(call(), FALSE) << text;
        EXPECT_EQ(trace.Text("PAKZLIB", number), text);
        EXPECT_EQ(trace.Level("PAKZLIB", number), -1) << text;
    }
    EXPECT_EQ(PakZlibCompressInChunks(oContext, "n", acText, -1, TRUE), FALSE);
    EXPECT_EQ(PakZlibCompressFile(nullptr, existing.c_str(), "n"), FALSE);
    EXPECT_EQ(PakZlibCompressObject(oContext, nullptr, "n"), FALSE);
    EXPECT_EQ(PakZlibCleanupContext(&oEmpty), FALSE);
    EXPECT_EQ(oNone, nullptr);
    EXPECT_EQ(oEmpty, nullptr);
    EXPECT_EQ(ReadFile(existing), "kept");

    // The context took no harm.
    EXPECT_EQ(PakZlibCompressFile(oContext, existing.c_str(), nullptr), TRUE);
    EXPECT_EQ(PakZlibFinalize(&oContext), TRUE);
    EXPECT_EQ(ReadFile(open), bytes::Archive({{"existing", {"kept"}}}));
}

TEST_F(PakZlib, DamagedArchivesAreRefused) {
    const auto archive = [](const std::string& name, const std::string& chunkLengths = {}) {
        bytes::FileHeader header = bytes::HeaderOf({name, {"text"}});
        if (!chunkLengths.empty()) header.chunkLengths = chunkLengths;
        return bytes::Archive(bytes::List({header.Encode()}), bytes::Compress("text"));
    };
    const std::pair<std::string, int32> cases[] = {
        // with the number of the message
        {"abc", 55},
        {Long(0) + "abc", 54},
        {Long(-1) + "abc", 54},
        {Long(4) + "abc", 53},
        {Long(0x7fffffff) + "abc", 53},
        {Long(3) + "abc", 52},
        {Long(1) + Byte(0), 45},
        {bytes::Archive(bytes::List({}), ""), 45},
        {bytes::Archive(bytes::Integer(1), ""), 45},
        {bytes::Archive(bytes::List({bytes::Integer(1)}), ""), 44},
        {archive("a/b"), 57},
        {archive("name", bytes::List({})), 42},
        {archive("name", bytes::List({bytes::Integer(-1)})), 39},
        {bytes::Archive({{"name", {std::string(65537, 'x')}}}), 37},
    };
    for (const auto& [damaged, number] : cases) {
        const TraceCapture trace;
        EXPECT_EQ(Restore(damaged), FALSE) << number;
        EXPECT_EQ(trace.Level("PAKZLIB", number), -1) << number;
    }
}

}  // namespace
