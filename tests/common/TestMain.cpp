// Test entry point: every test process runs in a fresh temporary working directory that
// holds "C:/logs", so the relative debug log path "C://logs//ZuLog.txt" resolves inside
// it and parallel test processes never share a log file.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>

#include <unistd.h>

namespace TolvaTest {
void setWorkDirectory(const std::filesystem::path& dir);
}

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);

    std::string pattern = (std::filesystem::temp_directory_path() / "tolva-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        std::cerr << "cannot create a temporary working directory\n";
        return 2;
    }
    const std::filesystem::path dir(pattern);
    std::filesystem::create_directories(dir / "C:" / "logs");
    std::filesystem::current_path(dir);
    TolvaTest::setWorkDirectory(dir);

    const int result = RUN_ALL_TESTS();

    // Keep the folder of a failing run for inspection; remove it otherwise.
    if (result == 0 && std::getenv("TOLVA_KEEP_TEST_DIRS") == nullptr) {
        std::error_code ignored;
        std::filesystem::current_path(dir.parent_path(), ignored);
        std::filesystem::remove_all(dir, ignored);
    } else {
        std::cerr << "test working directory kept: " << dir << "\n";
    }
    return result;
}
