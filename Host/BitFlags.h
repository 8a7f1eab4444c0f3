#pragma once

// A set of flags of one enumeration, held as the enumeration's integer. A plain value without
// invariants.

#include <type_traits>

namespace Norvex {

// A set of flags of an enumeration.
template <class E>
class bitflags {
public:
    using value_type = std::underlying_type_t<E>; // what the enumeration is stored in

    constexpr bitflags() noexcept = default;
    // One flag.
    constexpr bitflags(E flag) noexcept : m_value(static_cast<value_type>(flag)) {}
    // Any bits, also ones without a name.
    constexpr explicit bitflags(value_type value) noexcept : m_value(value) {}

    // The bits.
    constexpr value_type value() const noexcept { return m_value; }
    // For calls that take the enumeration type.
    constexpr E get() const noexcept { return static_cast<E>(m_value); }

    // True when every flag of the argument is in this set (an empty argument: always).
    constexpr bool has(bitflags flags) const noexcept {
        return (m_value & flags.m_value) == flags.m_value;
    }
    // Whether one at least of those flags is set.
    constexpr bool has_any(bitflags flags) const noexcept { return (m_value & flags.m_value) != 0; }
    // Whether none is set.
    constexpr bool empty() const noexcept { return m_value == 0; }
    // Whether any is set.
    constexpr explicit operator bool() const noexcept { return m_value != 0; }

    // Sets the other flags too.
    constexpr bitflags& operator|=(bitflags other) noexcept { return *this = *this | other; }
    // Keeps the common flags.
    constexpr bitflags& operator&=(bitflags other) noexcept { return *this = *this & other; }
    // Keeps the flags that one of both has.
    constexpr bitflags& operator^=(bitflags other) noexcept { return *this = *this ^ other; }
    // Every bit that is not set, named or not.
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
