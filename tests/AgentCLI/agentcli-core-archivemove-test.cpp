#include "agentcli-core-archivemove.h"

#include <gmock/gmock.h>

#include <atomic>
#include <string>
#include <thread>

#include "shared.util-handle.h"
#include "test-support.h"

namespace AgentCLI::Core::Commands::Agent {

namespace {

TEST(MoveArchive, TheArchiveIsDeliveredAlthoughAnotherProcessHoldsItThere) {
    const TestSupport::WorkingFolder folder;
    const TestSupport::CapturedLog log;
    std::atomic<bool> wasHeld = false;
    for (int round = 0; round < 200 && !wasHeld; ++round) {
        const std::filesystem::path destination = folder / (std::to_wstring(round) + L".zip");
        Shared::FileZip::ZipArchiveWrapper zip(L"diagnostics.zip");
        zip.Open();
        TestSupport::WriteFile(folder / L"file", "text");
        ASSERT_TRUE(zip.AddFile("file", L"file"));
        std::atomic<bool> moved = false;
        std::thread reader([&] {
            while (!moved && !wasHeld) {
                const Shared::Util::FileHandle held(CreateFileW(destination.c_str(), GENERIC_READ, FILE_SHARE_READ,
                                                                nullptr, OPEN_EXISTING, 0, nullptr));
                // The archive itself does not share writing.
                while (held && !moved) {
                    wasHeld = true;
                    Sleep(1);
                }
            }
        });
        EXPECT_NO_THROW(MoveArchive(zip, destination));
        moved = true;
        reader.join();
        EXPECT_EQ(zip.Path(), destination);
        zip.Close();
    }
    EXPECT_TRUE(wasHeld);
    EXPECT_THAT(log.Text(), testing::HasSubstr("another process holds it"));
    EXPECT_FALSE(std::filesystem::exists(L"diagnostics.zip"));
}

}  // namespace

}  // namespace AgentCLI::Core::Commands::Agent
