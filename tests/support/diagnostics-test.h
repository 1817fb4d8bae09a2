#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "shared.filezip-ziparchivewrapper.h"
#include "test-support.h"

namespace TestSupport {

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
