#include <gmock/gmock.h>
#include <google/protobuf/util/json_util.h>

#include <random>
#include <string>
#include <vector>

#include "agentcore.diagnostics-collectors-commandtofile.h"
#include "agentcore.diagnostics-crashset.h"
#include "agentcore.diagnostics-logset.h"
#include "agentcore.diagnostics-manifest.h"
#include "agentcore.diagnostics-toolset.h"
#include "diagnostics-test.h"
#include "shared.util-functions.h"

namespace AgentCore::Diagnostics {

namespace {

namespace fs = std::filesystem;
using namespace testing;

constexpr std::size_t floodSize = std::size_t{100} << 20U;

std::wstring Flood() {
    return L'"' + TestSupport::ChildProgram().native() + L"\" bytes " + std::to_wstring(floodSize);
}

/// Whatever a collector meets, the run ends with an archive that opens and a manifest that says what happened.
class HostileInput : public TestSupport::DiagnosticsTest {
protected:
    std::vector<CollectorStatus> Run(const std::vector<CollectorRow>& rows) {
        std::vector<CollectorStatus> statuses = RunSet(rows, zip_);
        WriteManifest(statuses, zip_);
        zip_.Close();
        zip_.Open();
        manifest_.Clear();
        EXPECT_TRUE(google::protobuf::util::JsonStringToMessage(Text("manifest.json").value_or(""), &manifest_).ok());
        EXPECT_EQ(manifest_.diagnostics_size(), static_cast<int>(rows.size()));
        return statuses;
    }

    ::Diagnostics::DiagnosticResponse manifest_;
};

TEST_F(HostileInput, AFloodOfAnyBytesIsArchivedWhole) {
    Run({{.type = sampleType,
          .name = "flood",
          .origin = {},
          .collectors = {AsRun<Collectors::Cmd::CommandToFile<&Flood, "Flood.txt", sampleType>>()}}});
    EXPECT_TRUE(manifest_.diagnostics(0).success());
    const std::string text = Text("DIAGNOSTIC_TYPE_SAMPLE_ALL_0/Flood.txt").value_or("");
    const std::size_t start = text.find("Output:\r\n") + 9;
    ASSERT_EQ(text.size() - start, floodSize + 2);
    for (std::size_t index = 0; index < floodSize; index += 9973) {
        ASSERT_EQ(static_cast<unsigned char>(text[start + index]), index % 251);
    }
}

TEST_F(HostileInput, TextsOfAnyBytesComeOutAsUtf8) {
    std::mt19937 random(99);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same cases in every run
    const auto bytes = [&random] {
        static constexpr std::string_view pieces = "a\"\\\n\r\x7F\xC3\xA9\xED\xA0\x80\xF4\x90\xFF\xFE\xE2\x80\xA8</";
        std::string text(random() % 12, '\0');
        std::ranges::generate(
            text, [&] { return random() % 4 == 0 ? static_cast<char>(random()) : pieces[random() % pieces.size()]; });
        return text;
    };
    std::vector<CollectorRow> rows;
    std::vector<std::vector<std::string>> messages(200);
    for (auto& errors : messages) {
        for (int number = 0; number < 10; ++number) {
            errors.push_back(bytes());
        }
        rows.push_back({.type = logType,
                        .name = errors.front(),
                        .origin = [origin = bytes()]() -> std::string { return origin; },
                        .collectors = {[&errors](const fs::path&, Shared::FileZip::ZipArchiveWrapper&) {
                            CollectorStatus status;
                            status.errors = errors;
                            return status;
                        }}});
    }
    Run(rows);
    for (int row = 0; row < manifest_.diagnostics_size(); ++row) {
        for (std::size_t number = 0; number < 10; ++number) {
            EXPECT_EQ(manifest_.diagnostics(row).errors(static_cast<int>(number)),
                      Shared::Util::SanitiseUtf8(messages[static_cast<std::size_t>(row)][number]));
        }
    }
}

TEST_F(HostileInput, InstallPathsOfAnyKindEndInRows) {
    std::mt19937 random(11);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same cases in every run
    static constexpr std::wstring_view units{L"\\\\:.. a\"&|\n\0/?*\xD800\xDC00\xFFFF", 18};
    const auto expected = LogSet({}).size() + CrashReportSet({}).size() + 1;
    for (int round = 0; round < 150; ++round) {
        std::wstring path = round % 3 == 0 ? L"" : L"C:\\";
        const std::size_t length = random() % (round % 10 == 0 ? 40000 : 20);
        for (std::size_t index = 0; index < length; ++index) {
            path += units[random() % units.size()];
        }
        const DWORD type = random() % 8 == 0 ? REG_MULTI_SZ : REG_SZ;
        const std::size_t parity = random() % 2;
        hive_.SetRaw(LR"(SOFTWARE\Velqor\OXM)", L"Path", type,
                     {reinterpret_cast<const char*>(path.data()), (path.size() * 2) - (path.empty() ? 0 : parity)});
        std::vector<CollectorRow> rows = LogSet({});
        std::ranges::move(CrashReportSet({}), std::back_inserter(rows));
        rows.push_back(ToolSet().at(3));
        EXPECT_THAT(Run(rows), SizeIs(expected));
        EXPECT_TRUE(fs::is_empty(working_.Path()));
    }
}

TEST_F(HostileInput, TwentyThousandFilesAreTenAndAMessageEach) {
    hive_.SetString(LR"(SOFTWARE\Velqor\OXM)", L"Path", (machine_ / L"OXM").native());
    fs::create_directory(machine_ / L"OXM");
    TestSupport::WriteNumberedFiles(machine_ / L"OXM", 20000);
    const ULONGLONG start = GetTickCount64();
    const auto statuses = Run({LogSet({}).front()});
    EXPECT_LT(GetTickCount64() - start, 10000U);
    EXPECT_TRUE(statuses[0].success);
    EXPECT_THAT(statuses[0].errors, SizeIs(19990));
    EXPECT_THAT(statuses[0].errors, Each(HasSubstr("as extension copier reached copyable limit.")));
    EXPECT_EQ(manifest_.diagnostics(0).errors_size(), 19990);
    EXPECT_THAT(zip_.Entries(), SizeIs(1 + 10 + 1));
}

}  // namespace

}  // namespace AgentCore::Diagnostics
