#pragma once

// The place of a throw in the form that exceptions show: source path relative to the source tree,
// line, short function name. Compilers give whole signatures and their own names for lambdas; this
// is the one place that shortens them. Any thread; only on the way to a throw, so it may allocate.

#include <source_location>
#include <string>
#include <string_view>

#include <boost/assert/source_location.hpp>

#include "Platform/Export.h"

namespace Norvex {

// "Open" from "void Ns::File::Open(int) const", "Ns::File::Open(int)::<lambda(char)>", "Open";
// "File" from a constructor,
// "~File" from a destructor; the text itself when it holds no function name.
NORVEX_HOST_API std::string ShortFunctionName(std::string_view signature);

// "Host/Registry.cpp" from "C:\\src\\Host\\Registry.cpp"; paths outside the known roots stay whole,
// with forward slashes.
NORVEX_HOST_API std::string RelativeSourcePath(std::string_view path);

// The site with both shortened. The texts it points to live until the process ends.
NORVEX_HOST_API boost::source_location MakeThrowSite(const std::source_location& location);

} // namespace Norvex
