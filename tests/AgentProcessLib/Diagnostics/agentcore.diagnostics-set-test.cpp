#include <gmock/gmock.h>

#include <stdexcept>

#include "agentcore.diagnostics-manifest.h"
#include "agentcore.diagnostics-set.h"
#include "diagnostics-test.h"

namespace AgentCore::Diagnostics {

namespace {

using Shared::FileZip::ZipArchiveWrapper;
using testing::ElementsAre;
using testing::HasSubstr;

using SetTest = TestSupport::DiagnosticsTest;

TEST_F(SetTest, FoldersTakeTheFirstNumberThatNoNameContains) {
    TestSupport::WriteFile(working_ / L"a.txt", "a");
    const std::pair<const char*, const wchar_t*> steps[] = {
        {"DIAGNOSTIC_TYPE_CRASH_REPORT_ALL_0/a", L"DIAGNOSTIC_TYPE_LOG_ALL_0"},
        {"DIAGNOSTIC_TYPE_LOG_ALL_0/a", L"DIAGNOSTIC_TYPE_LOG_ALL_1"},
        {"DIAGNOSTIC_TYPE_LOG_ALL_21/a", L"DIAGNOSTIC_TYPE_LOG_ALL_1"},
        {"DIAGNOSTIC_TYPE_LOG_ALL_10/a", L"DIAGNOSTIC_TYPE_LOG_ALL_3"},
        {"elsewhere/DIAGNOSTIC_TYPE_LOG_ALL_3", L"DIAGNOSTIC_TYPE_LOG_ALL_4"},
        {"DIAGNOSTIC_TYPE_LOG_ALL_04/99999999999999999999", L"DIAGNOSTIC_TYPE_LOG_ALL_4"},
    };
    for (const auto& [entry, folder] : steps) {
        ASSERT_TRUE(zip_.AddFile(entry, L"a.txt")) << entry;
        EXPECT_EQ(UniqueEntryFolder(logType, zip_), folder) << entry;
    }
}

TEST_F(SetTest, ARowIsOneStatusAndOneManifestEntryWhateverItsCollectorsSay) {
    const auto says = [](bool success, std::string message) -> CollectorRow::Run {
        return [=](const std::filesystem::path&, ZipArchiveWrapper&) {
            CollectorStatus status = Unsuccessful(message);
            status.success = success;
            status.diagnostic.set_raw_process_exit_code(success ? 258 : 0);
            return status;
        };
    };
    const CollectorRow rows[] = {
        {.type = sampleType,
         .name = "first",
         .origin = []() -> std::string { throw std::runtime_error("nowhere"); },
         .collectors = {says(false, "one"), says(true, "not \xFF UTF-8"), says(false, "three")}},
        {.type = logType, .name = "second", .origin = {}, .collectors = {[](const auto&, auto&) -> CollectorStatus {
                                                              throw std::runtime_error("unruly");
                                                          }}},
    };
    const auto statuses = RunSet(rows, zip_);
    EXPECT_THAT(statuses[0].errors, ElementsAre("one", "not \xFF UTF-8", "three"));
    EXPECT_TRUE(statuses[0].success);
    EXPECT_EQ(statuses[0].diagnostic.raw_process_exit_code(), 258U);
    EXPECT_EQ(statuses[0].diagnostic.archive_path(), "DIAGNOSTIC_TYPE_SAMPLE_ALL_0");
    EXPECT_THAT(statuses[1].errors, ElementsAre("Collector second failed: unruly"));
    WriteManifest(statuses, zip_);
    const std::string manifest = Text("manifest.json").value_or("");
    EXPECT_THAT(manifest, HasSubstr("\"not \xEF\xBF\xBD UTF-8\""));
    EXPECT_LT(manifest.find("first"), manifest.find("second"));
    EXPECT_TRUE(std::filesystem::is_empty(working_.Path()));
}

}  // namespace

}  // namespace AgentCore::Diagnostics
