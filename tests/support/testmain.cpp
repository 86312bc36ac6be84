#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>

#include "core/context.h"
#include "support/roles.h"
#include "support/support.h"

int main(int argc, char** argv) {
    RunRole(argc, argv);
    testing::InitGoogleTest(&argc, argv);
    const std::string home = TestHome();
    mkdir((home + "/tmp").c_str(), 0700);
    setenv("KRHOME", home.c_str(), 1);
    if (ContextInitialize() != TRUE) {
        std::puts("the library did not start");
        return 1;
    }
    return RUN_ALL_TESTS();
}
