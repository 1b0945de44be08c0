// SPDX-License-Identifier: Apache-2.0
// The configuration matrix of the soak: a list of dimensions (cube size,
// link rate, refresh, request mix, switch settings, buffer sizes ...), each
// with the settings it takes, and the ways to pick cases from it: the whole
// product, a pairwise covering set, or a random sample. A setting is nothing
// but zelsim arguments, so a case is a zelsim command line.
#ifndef ZELSIM_SOAK_MATRIX_H
#define ZELSIM_SOAK_MATRIX_H

#include <cstdint>
#include <string>
#include <vector>

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Soak {

// One value of a dimension: a short label and the zelsim arguments that
// select it ("--cube-size", "1", "--set", "PACK_INTERQUAD=1" ...).
struct Setting {
  std::string label;
  std::vector<std::string> args;
};

struct Dimension {
  std::string name;     // as used by --only and in case labels
  std::string meaning;  // one line for --list-matrix and the documentation
  std::vector<Setting> settings;
};

// The soak's matrix, in the order in which case labels show it.
std::vector<Dimension> SoakMatrix();

// A case: the index of the chosen setting in each dimension.
using Case = std::vector<unsigned>;

// Cases in the whole product of the dimensions.
uint64_t ProductSize(const std::vector<Dimension>& dims);
// Case n of the product, with the last dimension turning fastest.
Case NthCase(const std::vector<Dimension>& dims, uint64_t n);

// A set of cases in which every pair of settings of any two dimensions
// appears at least once. Greedy and deterministic: the same dimensions give
// the same cases.
std::vector<Case> PairwiseCases(const std::vector<Dimension>& dims);
// True when `cases` hold every pair of settings of every two dimensions.
bool CoversAllPairs(const std::vector<Dimension>& dims, const std::vector<Case>& cases);
// `count` distinct cases of the product (all of them if it has fewer), drawn
// with a generator seeded by `seed`.
std::vector<Case> SampleCases(const std::vector<Dimension>& dims, uint64_t count, uint64_t seed);

// Keeps the dimensions as they are but drops every setting of dimension
// `name` except `label`. False if there is no such dimension or setting.
bool Restrict(std::vector<Dimension>& dims, const std::string& name, const std::string& label);

// "cube=4 link=50x8 ..." for people and reports.
std::string CaseLabel(const std::vector<Dimension>& dims, const Case& c);
// The zelsim arguments of a case, dimension by dimension.
std::vector<std::string> CaseArguments(const std::vector<Dimension>& dims, const Case& c);

}  // namespace Soak
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZELSIM_SOAK_MATRIX_H
