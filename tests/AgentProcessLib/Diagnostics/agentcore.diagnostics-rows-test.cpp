#include <gmock/gmock.h>

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
            // What was archived in part is a success with a message.
            CollectorStatus status =
                success ? StatusOf(std::unexpected(ZipArchiveWrapper::AddFailure{
                                       .message = message, .archived = {{.entryName = "a", .size = 5}}}),
                                   L"C:\\logs\\a")
                        : Unsuccessful(message);
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
    std::string manifest = Text("manifest.json").value_or("");
    EXPECT_LT(manifest.find("first"), manifest.find("second"));
    std::erase_if(manifest, [](char character) { return character <= ' ' && character >= 0; });
    EXPECT_THAT(manifest, HasSubstr("\"not\xEF\xBF\xBDUTF-8\""));
    EXPECT_THAT(manifest, HasSubstr(R"("files":[{"name":"a","origin":"C:\\logs\\a","size":5}])"));
    EXPECT_TRUE(std::filesystem::is_empty(working_.Path()));
}

}  // namespace

}  // namespace AgentCore::Diagnostics
