#include "agentcli-core-archivemove.h"

#include <gmock/gmock.h>

#include <string>

#include "test-support.h"

namespace AgentCLI::Core::Commands::Agent {

namespace {

TEST(MoveArchive, AFolderAtTheDestinationStaysAndSoDoesTheArchive) {
    const TestSupport::WorkingFolder folder;
    TestSupport::WriteFile(folder / L"file", "text");
    Shared::FileZip::ZipArchiveWrapper zip(L"diagnostics.zip");
    zip.Open();
    std::filesystem::create_directory(folder / L"empty");
    EXPECT_THAT([&] { MoveArchive(zip, folder / L"empty"); }, testing::ThrowsMessage<std::filesystem::filesystem_error>(
                                                                  testing::HasSubstr("copy_file (it is a folder)")));
    EXPECT_TRUE(std::filesystem::is_directory(folder / L"empty"));
    EXPECT_TRUE(zip.AddFile("file", L"file"));

    MoveArchive(zip, folder / L"moved.zip");
    EXPECT_EQ(zip.Path(), folder / L"moved.zip");
    EXPECT_EQ(zip.Entries().size(), 1U);
    EXPECT_FALSE(std::filesystem::exists(L"diagnostics.zip"));
}

}  // namespace

}  // namespace AgentCLI::Core::Commands::Agent
