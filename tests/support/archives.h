// What the tests of the archive writer and reader share.
#pragma once

#include "core/objwrappers.h"
#include "pakzlib.h"
#include "support/archivebytes.h"
#include "support/files.h"
#include "support/leftovers.h"

// Thousands of files come and go: all lie in memory where there is such a place.
inline const std::string TmpDir = [] {
    if (Exists("/dev/shm")) setenv("TMPDIR", "/dev/shm", 0);
    return TestHome() + "/tmp";
}();

class ArchiveTest : public testing::Test {
 protected:
    // Classes, each with the shape of its own, and the path of the temporary directory are kept
    // from their first use on.
    static void SetUpTestSuite() {
        const TempDir dir;
        PakZlibContextO oContext = nullptr;
        const ObjHolder<ObjStringS> oText(ObjStringNew("text"));
        EXPECT_EQ(PakZlibInitialize(&oContext, (dir / "archive").c_str()), TRUE);
        EXPECT_EQ(PakZlibCompressObject(oContext, oText.Get(), "name"), TRUE);
        EXPECT_EQ(PakZlibFinalize(&oContext), TRUE);
        EXPECT_EQ(PakZlibUncompress((dir / "archive").c_str(), (dir / "target").c_str()), TRUE);
    }
    explicit ArchiveTest(const std::string& target = "target") : m_target(m_dir / target) {}
    BooleanT Restore() { return PakZlibUncompress(m_archive.c_str(), m_target.c_str()); }
    BooleanT Restore(const std::string& archive) {
        WriteFile(m_archive, archive);
        return Restore();
    }
    std::string Restored(const std::string& name) { return ReadFile(m_target + "/" + name); }

    const TempDir m_dir;
    const std::string m_archive = m_dir / "archive";
    const std::string m_target;
};

// The same with each number of workers: what can be seen does not depend on it.
class ArchiveTestWithWorkers : public ArchiveTest, public testing::WithParamInterface<int32> {
 protected:
    explicit ArchiveTestWithWorkers(const std::string& target = "target") : ArchiveTest(target) {
        PakZlibUseWorkers(GetParam());
    }
    ~ArchiveTestWithWorkers() override { PakZlibUseWorkers(PakZlibAllProcessors); }
};
#define WITH_WORKERS(suite) INSTANTIATE_TEST_SUITE_P(Workers, suite, testing::Values(0, 1, 2, 7))
