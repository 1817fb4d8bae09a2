#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

namespace Shared::Util {

/// N characters held by value, so that a text can be a template argument. Not terminated; N may be 0.
template <class Char, class View, class String, std::size_t N>
struct FixedString {
    // NOLINTNEXTLINE(google-explicit-constructor): template arguments are written as plain literals
    consteval FixedString(const Char (&literal)[N + 1]) { std::copy_n(literal, N, characters); }

    // NOLINTNEXTLINE(google-explicit-constructor): it serves wherever its view does
    constexpr operator View() const noexcept { return View(characters, characters + N); }
    explicit constexpr operator String() const { return String(characters, characters + N); }

    Char characters[N + 1]{};
};

template <class Char, std::size_t N>
FixedString(const Char (&)[N]) -> FixedString<Char, std::basic_string_view<Char>, std::basic_string<Char>, N - 1>;

}  // namespace Shared::Util
