#pragma once

// A set of flags of one enumeration, held as the enumeration's integer. A plain value without
// invariants.

#include <type_traits>

namespace Norvex {

template <class E>
class bitflags {
public:
    using value_type = std::underlying_type_t<E>;

    constexpr bitflags() noexcept = default;
    constexpr bitflags(E flag) noexcept : m_value(static_cast<value_type>(flag)) {}
    constexpr explicit bitflags(value_type value) noexcept : m_value(value) {}

    constexpr value_type value() const noexcept { return m_value; }
    // For calls that take the enumeration type.
    constexpr E get() const noexcept { return static_cast<E>(m_value); }

    // True when every flag of the argument is in this set (an empty argument: always).
    constexpr bool has(bitflags flags) const noexcept {
        return (m_value & flags.m_value) == flags.m_value;
    }
    constexpr bool has_any(bitflags flags) const noexcept { return (m_value & flags.m_value) != 0; }
    constexpr bool empty() const noexcept { return m_value == 0; }
    constexpr explicit operator bool() const noexcept { return m_value != 0; }

    constexpr bitflags& operator|=(bitflags other) noexcept { return *this = *this | other; }
    constexpr bitflags& operator&=(bitflags other) noexcept { return *this = *this & other; }
    constexpr bitflags& operator^=(bitflags other) noexcept { return *this = *this ^ other; }
    constexpr bitflags operator~() const noexcept {
        return bitflags(static_cast<value_type>(~m_value));
    }

    friend constexpr bitflags operator|(bitflags a, bitflags b) noexcept {
        return bitflags(static_cast<value_type>(a.m_value | b.m_value));
    }
    friend constexpr bitflags operator&(bitflags a, bitflags b) noexcept {
        return bitflags(static_cast<value_type>(a.m_value & b.m_value));
    }
    friend constexpr bitflags operator^(bitflags a, bitflags b) noexcept {
        return bitflags(static_cast<value_type>(a.m_value ^ b.m_value));
    }
    friend constexpr bool operator==(bitflags a, bitflags b) noexcept = default;

private:
    value_type m_value{};
};

} // namespace Norvex
