#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gmock/gmock.h>
#include <google/protobuf/util/json_util.h>

#include <algorithm>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "agentcore.diagnostics-manifest.h"
#include "agentcore.diagnostics-sets.h"
#include "diagnostics-test.h"
#include "shared.filesystem-longpath.h"
#include "shared.util-functions.h"
#include "shared.util-handle.h"

namespace AgentCore::Diagnostics {

namespace {

namespace fs = std::filesystem;
using TestSupport::readKeys;
using TestSupport::scannedFolders;

/// Makes texts and bytes as no sane program does; the same in every run.
class Generator {
public:
    explicit Generator(unsigned seed) : random_(seed) {}

    unsigned Below(std::size_t limit) { return static_cast<unsigned>(random_() % limit); }

    std::wstring Text(std::size_t limit, std::wstring_view units) {
        std::wstring text(Below(limit), L'\0');
        std::ranges::generate(text, [&] { return units[Below(units.size())]; });
        return text;
    }

    /// A text as the registry holds it, at times without its last byte.
    std::string Stored(std::size_t limit, std::wstring_view units) {
        const std::wstring text = Text(limit, units);
        return {reinterpret_cast<const char*>(text.data()), (text.size() * 2) - (text.empty() ? 0 : Below(2))};
    }

private:
    std::mt19937 random_;
};

// What means something to a registry export or a report, and the halves of a character at the end.
constexpr std::wstring_view textUnits{L"aa\\\\=\"{\r\n\0\x00e9\x7C20\xE000\xFFFF\xD83D\xDE00", 16};
constexpr std::wstring_view nameUnits = L"aab..  ~%$&';={}\x00e9\x4e2d\xFF0E\xD83D\xDE00";
constexpr std::wstring_view nameStarts[] = {L"", L"", L"", L"nul", L"con", L"aux.", L"COM1", L"."};

using HostileInput = TestSupport::DiagnosticsTest;

/// Whatever a collector meets, the run ends with an archive that opens and a manifest that says what happened.
TEST_F(HostileInput, AnyRegistryAndFileNamesAreArchivedOrNamed) {
    for (unsigned round = 0; round < 6; ++round) {
        SCOPED_TRACE(round);
        Generator any(round);
        const TestSupport::ThrowAwayHive hive;
        const std::wstring root = (machine_ / std::to_wstring(round)).native() + L'\\';
        TestSupport::SetFolders(hive, root);
        // Half a character ends an export with a message; most rounds shall come to more.
        const std::wstring_view units = textUnits.substr(0, textUnits.size() - (round % 4 == 0 ? 0 : 2));
        for (int number = 0; number < 100; ++number) {
            const auto& [key, name] = readKeys[any.Below(std::size(readKeys))];
            hive.SetRaw(key, any.Below(3) == 0 ? name : any.Text(30, units), any.Below(12),
                        any.Stored(any.Below(8) == 0 ? 5000 : 24, units));
        }
        std::vector<std::string> wanted;
        for (int number = 0; number < 60; ++number) {
            const auto& [folder, ending] = scannedFolders[any.Below(std::size(scannedFolders))];
            std::wstring name(nameStarts[any.Below(std::size(nameStarts))]);
            // The longest names that there are; Wine's host counts bytes, and cuts off what is too long.
            const bool isLongest = any.Below(20) == 0;
            name.append(any.Text(8, isLongest ? nameUnits.substr(0, 8) : nameUnits));
            name.resize(isLongest ? 255 - ending.size() : name.size(), L'x');
            name.append(ending);
            fs::create_directories(root + folder);
            std::wstring file = root;
            file.append(folder).append(name);
            const Shared::Util::FileHandle made(CreateFileW(Shared::FileSystem::LongForm(file).c_str(), GENERIC_WRITE,
                                                            0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
            if (made && name != ending) {  // ".log" has no extension
                wanted.push_back(Shared::Util::ToUtf8Lossy(file));
            }
        }

        Shared::FileZip::ZipArchiveWrapper zip(machine_ / L"hostile.zip", 0, true);
        zip.Open(Shared::FileZip::ZipArchiveWrapper::Creation::New);
        std::vector<CollectorStatus> statuses;
        for (const auto& set : {LogSet(), ConfigurationSet(), CrashReportSet(), {SampleSet().back()}}) {
            std::ranges::move(RunSet(set, zip), std::back_inserter(statuses));
        }
        WriteManifest(statuses, zip, {});
        zip.Close();
        zip.Open();
        EXPECT_TRUE(fs::is_empty(working_.Path()));
        std::string said = log_.Text();
        for (const CollectorStatus& status : statuses) {
            said += fmt::format("{}", fmt::join(status.errors, "\n"));
        }
        std::string archived;
        for (const libzippp::ZipEntry& entry : zip.Entries()) {
            const std::string text = entry.readAsText();
            EXPECT_EQ(Shared::Util::SanitiseUtf8(text), text) << entry.getName();
            archived += entry.getName() + '\n';
            ::Diagnostics::DiagnosticResponse manifest;
            EXPECT_TRUE(entry.getName() != "manifest.json" ||
                        google::protobuf::util::JsonStringToMessage(text, &manifest).ok());
        }
        for (const std::string& file : wanted) {
            const std::string name = file.substr(file.rfind('\\') + 1);
            EXPECT_TRUE(archived.contains('/' + name + '\n') || said.contains(file)) << file;
        }
        EXPECT_THAT(archived, testing::AllOf(testing::HasSubstr("/regval.txt"), testing::HasSubstr("\nmanifest.json")));
    }
}

}  // namespace

}  // namespace AgentCore::Diagnostics
