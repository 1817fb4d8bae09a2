#include <gmock/gmock.h>

#include <stdexcept>

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

TEST_F(RowsTest, AManifestThatIsNotArchivedIsAFailure) {
    ZipArchiveWrapper tooSmall(machine_ / L"small.zip", 1);
    tooSmall.Open();
    EXPECT_THROW(WriteManifest({}, tooSmall, {}), std::runtime_error);
    EXPECT_TRUE(std::filesystem::is_empty(working_.Path()));
}

}  // namespace

}  // namespace AgentCore::Diagnostics
