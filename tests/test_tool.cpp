// The tool as a process: every outcome line, the exit status, and what each outcome leaves on disk.
#include <sys/resource.h>

#include "support/archivebytes.h"
#include "support/files.h"

namespace {

const std::string Usage =
    "Usage: Compress   - zlibcompress -c <source> <dest> <altname>\n"
    "     : Decompress - zlibcompress -d <source> <dest>\n";
const std::string Packed = "Compress complete\n";
const std::string Unpacked = "Decompression succeeded\n";
const std::string NotUnpacked = "Decompression failed\n";
const std::string NotOpened = "failed to initialize compression context\n";

// Processes started while it lives can write no file longer than this: writes become short, then
// fail.
struct FileSizeLimit {
    explicit FileSizeLimit(rlim_t size) {
        getrlimit(RLIMIT_FSIZE, &previous);
        const struct rlimit limit = {size, previous.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
        std::signal(SIGXFSZ, SIG_IGN);
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &previous);
        std::signal(SIGXFSZ, SIG_DFL);
    }
    struct rlimit previous;
};

class Tool : public testing::Test {
 protected:
    Tool() {
        std::filesystem::create_directories(m_dir / "home/tmp");
        WriteFile(m_source, m_content);
    }
    // The tool's output. Its exit status is 0, whatever the outcome.
    std::string Call(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), TEST_TOOL);
        const RunResult result = ::Run(arguments, {"KRHOME=" + m_dir / "home"});
        EXPECT_EQ(result.signal, 0);
        EXPECT_EQ(result.exitCode, 0);
        return result.output;
    }
    // Contents of the files in the home's temporary directory.
    std::vector<std::string> Temporary() {
        std::vector<std::string> contents;
        for (const std::string& name : ListDir(m_dir / "home/tmp"))
            contents.push_back(ReadFile(m_dir / ("home/tmp/" + name)));
        return contents;
    }
    // The temporary file and the archive stay as they are at that moment; here they go then.
    void ExpectNotPacked(const std::string& source) {
        EXPECT_EQ(Call({"-c", source, m_archive, "name", "-d"}),
                  "failed to compress " + source + "\n");
        EXPECT_TRUE(Exists(m_archive));
        EXPECT_EQ(ReadFile(m_archive), "");
        EXPECT_EQ(Temporary().size(), 1U);
        std::remove(m_archive.c_str());
        std::remove((m_dir / ("home/tmp/" + ListDir(m_dir / "home/tmp").at(0))).c_str());
    }
    std::string ArchiveOf(const std::string& content) {
        return bytes::Archive({bytes::Chunked("name", content)});
    }

    const TempDir m_dir;
    const std::string m_source = m_dir / "source";
    const std::string m_archive = m_dir / "archive";
    const std::string m_target = m_dir / "target";
    const std::string m_content = bytes::RandomBytes(70000, 1);
    const std::vector<std::string> m_none;
};

TEST_F(Tool, UsageForEveryOtherCommandLine) {
    const std::string s = m_source;
    const std::string a = m_archive;
    const std::vector<std::vector<std::string>> lines = {{},
                                                         {"-x"},
                                                         {""},
                                                         {"-c"},
                                                         {"-d"},
                                                         {"-c", s},
                                                         {"-c", s, a},
                                                         {"-d", s},
                                                         {"-c", s, a, "name", "extra"},
                                                         {"-c", s, a, "name", "-dd"},
                                                         {"-c", s, a, "name", "-d", "more"},
                                                         {"-d", s, m_target, "extra"},
                                                         {"-d", s, m_target, "extra", "-d"},
                                                         {"c", s, a, "name"},
                                                         {"-cc", s, a, "name"}};
    for (const std::vector<std::string>& line : lines) EXPECT_EQ(Call(line), Usage);
    EXPECT_EQ(ListDir(m_dir.Path()), (std::vector<std::string>{"home", "source"}));
    EXPECT_EQ(Temporary(), m_none);
    EXPECT_TRUE(ReadFile(m_source) == m_content);
}

TEST_F(Tool, PacksAndUnpacks) {
    const mode_t previous = umask(077);  // no mask may show in what the tool creates
    for (const char* option : {"-c", "-C"}) {
        EXPECT_EQ(Call({option, m_source, m_archive, "some/dir/name"}), Packed);
        EXPECT_TRUE(ReadFile(m_archive) == ArchiveOf(m_content));
        EXPECT_EQ(ModeOf(m_archive), S_IFREG | 0644U);
        EXPECT_EQ(Temporary(), m_none);
        for (const char* unpack : {"-d", "-D"}) {
            EXPECT_EQ(Call({unpack, m_archive, m_target}), Unpacked);
            EXPECT_TRUE(ReadFile(m_target + "/name") == m_content);
            EXPECT_EQ(ModeOf(m_target), S_IFDIR | 0700U);
            EXPECT_EQ(ModeOf(m_target + "/name"), S_IFREG | 0644U);
            WriteFile(m_target + "/name", std::string(100000, 'x'));  // replaced by the next
        }
        std::remove(m_archive.c_str());
    }
    umask(previous);
}

TEST_F(Tool, SourceIsDeletedAfterACompleteArchiveOnly) {
    for (const char* option : {"-d", "-D"}) {
        WriteFile(m_source, m_content);
        EXPECT_EQ(Call({"-c", m_source, m_archive, "name", option}), Packed);
        EXPECT_FALSE(Exists(m_source));
        EXPECT_TRUE(ReadFile(m_archive) == ArchiveOf(m_content));
        std::remove(m_archive.c_str());
    }
    // A source that is replaced by its archive's name is no complete archive.
    WriteFile(m_source, m_content);
    EXPECT_EQ(Call({"-c", m_source, m_source, "name", "-d"}), NotOpened);
    EXPECT_TRUE(ReadFile(m_source) == m_content);
}

TEST_F(Tool, ArchiveThatCannotBeOpened) {
    WriteFile(m_archive, "kept");
    for (const std::string& archive : {m_archive, m_dir.Path(), m_dir / "missing/archive"}) {
        EXPECT_EQ(Call({"-c", m_source, archive, "name", "-d"}), NotOpened);
        EXPECT_EQ(Temporary(), m_none);
    }
    EXPECT_EQ(ReadFile(m_archive), "kept");
    EXPECT_TRUE(Exists(m_source));

    // Without a place for the temporary file the archive stays behind, empty.
    std::remove(m_archive.c_str());
    std::remove((m_dir / "home/tmp").c_str());
    EXPECT_EQ(Call({"-c", m_source, m_archive, "name", "-d"}), NotOpened);
    EXPECT_TRUE(Exists(m_archive));
    EXPECT_EQ(ReadFile(m_archive), "");
    EXPECT_TRUE(Exists(m_source));
}

TEST_F(Tool, SourceThatCannotBePacked) {
    ExpectNotPacked(m_dir / "missing");
    ExpectNotPacked(m_dir.Path());
    ExpectNotPacked("/proc/version");
}

TEST_F(Tool, FullDisk) {
    const std::string archive = ArchiveOf(m_content);
    const std::size_t headers = 4 + 18 + 67 + 5 + 2 * 16;
    const std::string data = archive.substr(headers);
    // Too small for the first chunk, for the second.
    for (const std::size_t room : {std::size_t{1000}, data.size() - 1}) {
        const FileSizeLimit limit(room);
        ExpectNotPacked(m_source);
    }
    {
        // Enough for the temporary file, one byte too small for the archive.
        const FileSizeLimit limit(archive.size() - 1);
        EXPECT_EQ(Call({"-c", m_source, m_archive, "name", "-d"}), "compress finalization failed");
        EXPECT_TRUE(ReadFile(m_archive) == archive.substr(0, archive.size() - 1));
        EXPECT_EQ(Temporary(), m_none);
        std::remove(m_archive.c_str());
    }
    EXPECT_TRUE(ReadFile(m_source) == m_content);

    WriteFile(m_archive, archive);
    for (const unsigned room : {0, 65535, 65536, 69999}) {
        const FileSizeLimit limit(room);
        EXPECT_EQ(Call({"-d", m_archive, m_target}), NotUnpacked);
        EXPECT_TRUE(ReadFile(m_target + "/name") == m_content.substr(0, room)) << room;
    }
    const FileSizeLimit limit(70000);
    EXPECT_EQ(Call({"-d", m_archive, m_target}), Unpacked);
    EXPECT_TRUE(ReadFile(m_target + "/name") == m_content);
}

TEST_F(Tool, ArchiveThatCannotBeUnpacked) {
    EXPECT_EQ(Call({"-d", m_dir / "missing", m_target}), NotUnpacked);
    EXPECT_EQ(Call({"-d", m_dir.Path(), m_target}), NotUnpacked);
    EXPECT_FALSE(Exists(m_target));
    EXPECT_EQ(Call({"-d", m_source, m_dir / "missing/target"}), NotUnpacked);
    EXPECT_EQ(Call({"-d", m_source, m_source}), NotUnpacked);  // the target is a file
    EXPECT_TRUE(ReadFile(m_source) == m_content);

    // The second file's chunk is damaged: the first one is there, the third is not.
    std::string archive = bytes::Archive(
        {bytes::Chunked("1", "one"), bytes::Chunked("2", "two"), bytes::Chunked("3", "three")});
    archive.at(archive.size() - bytes::Compress("three").size() - 1) ^= 1;
    WriteFile(m_archive, archive);
    EXPECT_EQ(Call({"-d", m_archive, m_target}), NotUnpacked);
    EXPECT_EQ(ListDir(m_target), (std::vector<std::string>{"1", "2"}));
    EXPECT_EQ(ReadFile(m_target + "/1"), "one");
    EXPECT_EQ(ReadFile(m_target + "/2"), "");
}

// Only where a limit of the memory can be set: the sanitizers need their own memory, and an
// emulator is not held by the limit of what it runs.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && !defined(TEST_IS_EMULATED)
TEST_F(Tool, MemoryThatCannotBeHadStopsTheProcess) {
    // A header list that is as long as it says, but longer than the memory that there is.
    struct rlimit previous;
    getrlimit(RLIMIT_DATA, &previous);
    WriteFile(m_archive, bytes::Archive(std::string(32 << 20, '\1'), ""));
    const struct rlimit limit = {16 << 20, previous.rlim_max};
    setrlimit(RLIMIT_DATA, &limit);
    const RunResult result =
        ::Run({TEST_TOOL, "-d", m_archive, m_target}, {"KRHOME=" + m_dir / "home"});
    setrlimit(RLIMIT_DATA, &previous);
    EXPECT_EQ(result.signal, SIGSEGV);
    EXPECT_EQ(result.output, "");
}
#endif

}  // namespace
