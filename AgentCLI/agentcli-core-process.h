#pragma once

#include <string>
#include <vector>

namespace AgentCLI::Core {

/// Sets where this process and its children look for programs and libraries, before anything else runs: never in the
/// current directory and never along an inherited PATH. Also turns off error dialogs, which would wait for a user.
/// Failures are ignored.
void PrepareProcess() noexcept;

/// The process's arguments as UTF-8, whatever its code page is.
class Utf8Arguments {
public:
    /// Reads the process's wide command line; the given arguments serve when it cannot be split.
    Utf8Arguments(int count, const char* const* values);
    [[nodiscard]] int Count() const noexcept { return static_cast<int>(pointers_.size()) - 1; }
    [[nodiscard]] const char* const* Values() const noexcept { return pointers_.data(); }

private:
    std::vector<std::string> texts_;
    std::vector<const char*> pointers_;
};

}  // namespace AgentCLI::Core
