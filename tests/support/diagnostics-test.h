#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "shared.filezip-ziparchivewrapper.h"
#include "test-support.h"

namespace TestSupport {

/// Keys that are read, each with a value that is looked for there.
inline const std::pair<std::wstring, std::wstring> readKeys[] = {
    {LR"(SOFTWARE\Velqor\OXM\Config)", L""},
    {LR"(SOFTWARE\Velqor\Lumora Access Agent)", L""},
    {LR"(SOFTWARE\Velqor\Lumora Access Agent\sub)", L""},
    {LR"(SOFTWARE\Velqor\Portavo)", L"LatestCP"},
    {LR"(SOFTWARE\Velqor\Portavo)", L"wrap-cp-guid"},
    {LR"(SOFTWARE\Velqor\Portavo\VqPVS)", L"PreferredIP"},
    {LR"(SOFTWARE\Velqor\Portavo\VqSetup)", L"Prelogon"},
    {LR"(SOFTWARE\Velqor\Portavo\Settings)", L"n"},
    {LR"(SOFTWARE\Microsoft\Windows\CurrentVersion\Authentication\Credential Provider Filters\{1})", L""},
    {LR"(SYSTEM\CurrentControlSet\services\Tcpip\Linkage)", L"Bind"},
};
/// Folders that are scanned, below the one that SetFolders is given, each with the ending of the names that count.
struct ScannedFolder {
    std::wstring folder;
    std::wstring ending;
};
inline const ScannedFolder scannedFolders[] = {
    {.folder = LR"(Velqor\OXM\)", .ending = L".log"},
    {.folder = LR"(Velqor\OXM\sub\)", .ending = L".dmp"},
    {.folder = LR"(Velqor\Portavo\)", .ending = L".old"},
    {.folder = LR"(ProgramData\Velqor\Lumora Access Agent\Logs\)", .ending = L".log"},
    {.folder = LR"(ProgramData\Velqor\DLP\logs\)", .ending = L".txt"},
    {.folder = LR"(Users\bob\AppData\Local\Velqor\OXM\Viewpane\)", .ending = L""},
};

/// Sets where the registry says that the agent, the users' profiles and ProgramData are, all below one folder.
inline void SetFolders(const ThrowAwayHive& hive, const std::wstring& root) {
    const std::wstring profiles = LR"(SOFTWARE\Microsoft\Windows NT\CurrentVersion\ProfileList)";
    hive.SetString(profiles, L"ProfilesDirectory", root + L"Users");
    hive.SetString(profiles, L"ProgramData", root + L"ProgramData");
    hive.SetString(LR"(SOFTWARE\Velqor\OXM)", L"Path", root + LR"(Velqor\OXM\)");
}

/// What a collector meets and leaves: a machine's files and registry, the current directory, the log and an archive.
class DiagnosticsTest : public testing::Test {
protected:
    DiagnosticsTest() { zip_.Open(); }

    /// The names of the archived files, without those of folders.
    [[nodiscard]] std::vector<std::string> Archived() const {
        std::vector<std::string> names;
        for (const libzippp::ZipEntry& entry : zip_.Entries()) {
            if (entry.isFile()) {
                names.push_back(entry.getName());
            }
        }
        return names;
    }

    [[nodiscard]] std::optional<std::string> Text(const std::string& entryName) const {
        for (const libzippp::ZipEntry& entry : zip_.Entries()) {
            if (entry.getName() == entryName) {
                return entry.readAsText();
            }
        }
        return std::nullopt;
    }

    WorkingFolder working_;
    TemporaryFolder machine_;
    ThrowAwayHive hive_;
    CapturedLog log_;
    Shared::FileZip::ZipArchiveWrapper zip_{machine_ / L"out.zip"};
};

}  // namespace TestSupport
