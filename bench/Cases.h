#pragma once

// The cases, by what they measure.

#include <vector>

#include "bench/Case.h"

namespace Norvex::Bench {

std::vector<Case> MakeFrameCases12();
std::vector<Case> MakeFrameCases11();
std::vector<Case> MakeTransferCases();
std::vector<Case> MakePoolCases();
std::vector<Case> MakeSubmissionCases();
std::vector<Case> MakeGrowthCases();
std::vector<Case> MakeThreadCases();
std::vector<Case> MakePictureCases();
std::vector<Case> MakeConverterCases();
std::vector<Case> MakeStartCases();

} // namespace Norvex::Bench
