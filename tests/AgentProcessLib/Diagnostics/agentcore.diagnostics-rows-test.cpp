#include <gmock/gmock.h>

#include <cctype>
#include <expected>
#include <stdexcept>
#include <string>

#include "agentcore.diagnostics-manifest.h"
#include "agentcore.diagnostics-rows.h"
#include "diagnostics-test.h"

namespace AgentCore::Diagnostics {

namespace {

using Shared::FileZip::ZipArchiveWrapper;
using testing::ElementsAre;
using testing::HasSubstr;

using RowsTest = TestSupport::DiagnosticsTest;

TEST_F(RowsTest, ARowIsOneStatusAndOneManifestEntryWhateverItsCollectorsSay) {
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
         .origin = "\xFE",
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
    WriteManifest(statuses, zip_, {});
    const std::string manifest = Text("manifest.json").value_or("");
    EXPECT_THAT(manifest, HasSubstr("\"not \xEF\xBF\xBD UTF-8\""));
    EXPECT_LT(manifest.find("first"), manifest.find("second"));
    EXPECT_TRUE(std::filesystem::is_empty(working_.Path()));
}

TEST_F(RowsTest, TheManifestNamesEachFileOfARow) {
    TestSupport::WriteFile(working_ / L"empty", "");
    const CollectorRow rows[] = {
        {.type = logType,
         .name = "row",
         .origin = {},
         .collectors = {[](const auto& folder, auto& zip) { return Destination{folder, zip}.Add(L"empty"); },
                        [](const auto&, auto&) {
                            return StatusOf(std::unexpected(ZipArchiveWrapper::AddFailure{
                                                .message = "grew", .archived = {{.entryName = "a", .size = 5}}}),
                                            L"C:\\logs\\a");
                        }}}};
    const auto statuses = RunSet(rows, zip_);
    EXPECT_TRUE(statuses[0].success);
    WriteManifest(statuses, zip_, {});
    std::string files = Text("manifest.json").value_or("");
    files = files.substr(files.find("\"files\""));
    std::erase_if(files, [](char character) { return std::isspace(static_cast<unsigned char>(character)) != 0; });
    EXPECT_THAT(files, testing::StartsWith(R"("files":[{"name":"DIAGNOSTIC_TYPE_LOG_ALL_0/empty","size":0},)"
                                           R"({"name":"a","origin":"C:\\logs\\a","size":5}])"));
}

TEST_F(RowsTest, AManifestThatIsNotArchivedIsAFailure) {
    ZipArchiveWrapper tooSmall(machine_ / L"small.zip", 1);
    tooSmall.Open();
    EXPECT_THROW(WriteManifest({}, tooSmall, {}), std::runtime_error);
    EXPECT_TRUE(std::filesystem::is_empty(working_.Path()));
}

}  // namespace

}  // namespace AgentCore::Diagnostics
