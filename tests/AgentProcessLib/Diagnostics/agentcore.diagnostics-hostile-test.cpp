#include <gmock/gmock.h>
#include <google/protobuf/util/json_util.h>

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
constexpr std::wstring_view nameUnits = L"aab..  ~%$&';=\x00e9\x4e2d\xFF0E\xD83D\xDE00";
constexpr std::wstring_view nameStarts[] = {L"", L"", L"", L"nul", L"con", L"aux.", L"COM1", L"."};

std::vector<CollectorRow> Join(std::initializer_list<std::vector<CollectorRow>> sets) {
    std::vector<CollectorRow> rows;
    for (const auto& set : sets) {
        rows.insert(rows.end(), set.begin(), set.end());
    }
    return rows;
}

/// Whatever a collector meets, the run ends with an archive that opens and a manifest that says what happened.
class HostileInput : public TestSupport::DiagnosticsTest {
protected:
    /// Runs the rows into an archive of their own; returns all messages.
    std::string Run(const std::vector<CollectorRow>& rows) {
        zip_.Close();
        fs::remove(zip_.Path());
        zip_.Open();
        std::string messages;
        const auto statuses = RunSet(rows, zip_);
        WriteManifest(statuses, zip_, {});
        zip_.Close();
        zip_.Open();
        manifest_.Clear();
        EXPECT_TRUE(google::protobuf::util::JsonStringToMessage(Text("manifest.json").value_or(""), &manifest_).ok());
        EXPECT_EQ(manifest_.diagnostics_size(), static_cast<int>(rows.size()));
        EXPECT_TRUE(fs::is_empty(working_.Path()));
        for (const CollectorStatus& status : statuses) {
            for (const std::string& message : status.errors) {
                messages += message + '\n';
            }
        }
        return messages;
    }

    ::Diagnostics::DiagnosticResponse manifest_;
};

TEST_F(HostileInput, AnyRegistryAndFileNamesAreArchivedOrNamed) {
    unsigned cases = 0;
    unsigned handles = 0;
    for (unsigned round = 0; round < 6; ++round) {
        SCOPED_TRACE(round);
        Generator any(round);
        const TestSupport::ThrowAwayHive hive;
        const std::wstring root = (machine_ / std::to_wstring(round)).native() + L'\\';
        TestSupport::SetFolders(hive, root);
        // Half a character ends an export with a message; most rounds shall come to more.
        const std::wstring_view units = textUnits.substr(0, textUnits.size() - (round % 4 == 0 ? 0 : 2));
        for (int number = 0; number < 100; ++number, ++cases) {
            const auto& [key, name] = readKeys[any.Below(std::size(readKeys))];
            hive.SetRaw(key, any.Below(3) == 0 ? name : any.Text(30, units), any.Below(12),
                        any.Stored(any.Below(8) == 0 ? 5000 : 24, units));
        }
        std::vector<std::string> wanted;
        std::vector<Shared::Util::FileHandle> locked;
        std::vector<Shared::Util::KernelHandle> mapped;
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
            Shared::Util::FileHandle made(CreateFileW(Shared::FileSystem::LongForm(file).c_str(),
                                                      GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                                      FILE_ATTRIBUTE_NORMAL, nullptr));
            if (made && name != ending) {  // ".log" has no extension
                wanted.push_back(Shared::Util::ToUtf8Lossy(file));
                ++cases;
            }
            const unsigned use = made ? any.Below(9) : 9;
            if (use == 0) {
                mapped.emplace_back(CreateFileMappingW(made.Get(), nullptr, PAGE_READWRITE, 0, 10, nullptr));
            } else if (use == 1) {
                CreateHardLinkW((root + L"link" + std::to_wstring(number)).c_str(), file.c_str(), nullptr);
            } else if (use == 2 && round == 0) {  // each row waits a second
                locked.push_back(std::move(made));
            }
        }

        const std::string messages =
            Run(Join({LogSet(), ConfigurationSet(), CrashReportSet(), {SampleSet().back()}})) + log_.Text();
        std::string archived;
        for (const libzippp::ZipEntry& entry : zip_.Entries()) {
            const std::string text = entry.readAsText();
            EXPECT_EQ(Shared::Util::SanitiseUtf8(text), text) << entry.getName();
            archived += entry.getName() + '\n';
        }
        for (const std::string& file : wanted) {
            const std::string name = file.substr(file.rfind('\\') + 1);
            EXPECT_TRUE(archived.contains('/' + name + '\n') || messages.contains(file)) << file;
        }
        EXPECT_THAT(archived, testing::HasSubstr("/regval.txt"));
        locked.clear();
        mapped.clear();
        // What is opened once for good is opened in the first round.
        handles = round == 0 ? TestSupport::HandleCount() : handles;
    }
    EXPECT_LE(TestSupport::HandleCount(), handles);
    EXPECT_GT(cases, 800U);
}

}  // namespace

}  // namespace AgentCore::Diagnostics
