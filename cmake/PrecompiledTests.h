#pragma once

// What is precompiled for the tests.

#include "cmake/Precompiled.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
