#pragma once

// What is precompiled once for all targets: the Direct3D headers, and others that most sources
// include.

#include "Platform/Direct3D.h"

#include <boost/smart_ptr/intrusive_ptr.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>
