// SPDX-License-Identifier: Apache-2.0
// The soak's own logic, without running zelsim: the matrix and the ways of
// picking cases from it, and the verdict on a run's output.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>

#include "apps/soak/matrix.h"
#include "apps/soak/outcome.h"
#include "apps/soak/runner.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Soak {
namespace {

bool HasArgs(const std::vector<std::string>& args, const std::string& a, const std::string& b) {
  for (std::size_t i = 0; i + 1 < args.size(); ++i) {
    if (args[i] == a && args[i + 1] == b) return true;
  }
  return false;
}

const Dimension& Dim(const std::vector<Dimension>& dims, const std::string& name) {
  for (const Dimension& d : dims) {
    if (d.name == name) return d;
  }
  ADD_FAILURE() << "no dimension " << name;
  return dims.front();
}

TEST(SoakMatrix, HoldsTheRequiredSettings) {
  const std::vector<Dimension> dims = SoakMatrix();
  std::set<std::string> labels;
  for (const Dimension& d : dims) {
    for (const Setting& s : d.settings) labels.insert(d.name + "=" + s.label);
  }
  for (const char* want :
       {"cube=2",       "cube=4",     "cube=8",      "link=40x8",    "link=50x16", "link=60x8",
        "refresh=off",  "refresh=85", "refresh=95",  "pack=0",       "pack=1",     "openloop=on",
        "openloop=off", "stream=0",   "stream=1",    "stream=2",     "mapping=0",  "mapping=1",
        "mapping=2",    "mix=posted", "mix=atomics", "buffers=tight"}) {
    EXPECT_EQ(labels.count(want), 1u) << want;
  }
  EXPECT_TRUE(HasArgs(Dim(dims, "cube").settings[2].args, "--cube-size", "2"));
  EXPECT_TRUE(HasArgs(Dim(dims, "refresh").settings[2].args, "--set", "Tj=95"));
  // Every mix weighs all sixteen sizes.
  for (const Setting& mix : Dim(dims, "mix").settings) {
    for (const char* key : {"PERCENTAGE_RD_16B=1", "PERCENTAGE_RD_128B=1", "PERCENTAGE_WR_48B=1"}) {
      EXPECT_TRUE(HasArgs(mix.args, "--set", key)) << mix.label << " " << key;
    }
  }
}

TEST(SoakMatrix, ProductEnumeratesEveryCaseOnce) {
  std::vector<Dimension> dims = {{"a", "", {{"0", {}}, {"1", {}}}},
                                 {"b", "", {{"x", {}}, {"y", {}}, {"z", {}}}},
                                 {"c", "", {{"p", {}}, {"q", {}}}}};
  ASSERT_EQ(ProductSize(dims), 12u);
  std::set<Case> seen;
  for (uint64_t n = 0; n < 12; ++n) seen.insert(NthCase(dims, n));
  EXPECT_EQ(seen.size(), 12u);
  EXPECT_EQ(NthCase(dims, 1), (Case{0, 0, 1}));  // the last dimension turns fastest
  EXPECT_EQ(SampleCases(dims, 100, 3).size(), 12u);
  const std::vector<Case> some = SampleCases(dims, 5, 3);
  EXPECT_EQ(std::set<Case>(some.begin(), some.end()).size(), 5u);
}

TEST(SoakMatrix, PairwiseSetCoversAllPairsAndIsSmall) {
  const std::vector<Dimension> dims = SoakMatrix();
  const std::vector<Case> cases = PairwiseCases(dims);
  EXPECT_TRUE(CoversAllPairs(dims, cases));
  // At least the product of the two largest dimensions, and far below the
  // whole matrix.
  EXPECT_GE(cases.size(), 30u);
  EXPECT_LE(cases.size(), 60u);
  EXPECT_EQ(PairwiseCases(dims), cases);  // deterministic
  // One case less misses a pair.
  EXPECT_FALSE(CoversAllPairs(dims, std::vector<Case>(cases.begin() + 1, cases.end())));
}

TEST(SoakMatrix, RestrictKeepsOneSetting) {
  std::vector<Dimension> dims = SoakMatrix();
  ASSERT_TRUE(Restrict(dims, "buffers", "tight"));
  EXPECT_FALSE(Restrict(dims, "buffers", "roomy"));
  EXPECT_FALSE(Restrict(dims, "colour", "red"));
  const Dimension& buffers = Dim(dims, "buffers");
  ASSERT_EQ(buffers.settings.size(), 1u);
  for (const Case& c : PairwiseCases(dims)) {
    EXPECT_NE(CaseLabel(dims, c).find("buffers=tight"), std::string::npos);
    EXPECT_TRUE(HasArgs(CaseArguments(dims, c), "--set", "TOKENS_PER_LINK=9"));
  }
}

TEST(SoakRunner, ShellLineQuotesWhatNeedsIt) {
  EXPECT_EQ(ShellLine({"zelsim", "--set", "SIM_TIME=3000"}), "zelsim --set SIM_TIME=3000");
  EXPECT_EQ(ShellLine({"a b", "it's", ""}), "'a b' 'it'\\''s' ''");
}

// ---- Verdicts --------------------------------------------------------------------

const char kCleanJson[] =
    "{\n  \"seed\": 1,\n  \"run\": {\"end_time_ns\": 3500.5, \"drained\": false},\n"
    "  \"total\": {\"issued\": 10, \"reads\": 4, \"writes\": 5, \"atomics\": 1, \"posted\": 3, "
    "\"completed\": 7,"
    " \"outstanding\": 0, \"request_flits\": 40, \"response_flits\": 20, \"mismatches\": 0,"
    " \"latency_ns\": {\"count\": 7, \"mean\": 1.5e2, \"min\": null}},\n"
    "  \"mismatch_messages\": [],\n  \"rest_state\": \"ok\"\n}\n";

ChildResult CleanRun() {
  ChildResult r;
  r.started = true;
  r.exited = true;
  r.exitCode = 0;
  r.out = "banner\n==== zelsim summary ====\nResponse mismatches: 0\nzelsim: rest state OK\n";
  r.json = kCleanJson;
  return r;
}

TEST(SoakVerdict, CleanRunPassesWithItsFigures) {
  const Outcome o = Judge(CleanRun());
  EXPECT_TRUE(o.Passed()) << (o.details.empty() ? "" : o.details[0]);
  ASSERT_TRUE(o.haveFigures);
  EXPECT_EQ(o.figures.issued, 10u);
  EXPECT_EQ(o.figures.completed, 7u);
  EXPECT_EQ(o.figures.posted, 3u);
  EXPECT_DOUBLE_EQ(o.figures.endTimeNs, 3500.5);
}

TEST(SoakVerdict, ModelErrorsInAllTheirForms) {
  ChildResult message = CleanRun();  // exit(0) after the message, before the summary
  message.out = "banner\n=[1 us]= ERROR - Link Master 0 buffer exceeded capacity\n";
  message.json.clear();
  Outcome o = Judge(message);
  EXPECT_EQ(o.failures.count(Failure::ModelError), 1u);
  EXPECT_EQ(o.failures.count(Failure::NoResults), 0u);  // explained by the model error

  ChildResult abort = CleanRun();
  abort.exited = false;
  abort.signal = 6;
  abort.err = "zelsim: zel2/zel2_link.cpp:12: void f(): Assertion `returnCredits.size()' failed.\n";
  abort.json.clear();
  o = Judge(abort);
  EXPECT_EQ(o.failures.count(Failure::ModelError), 1u);

  ChildResult silent = CleanRun();
  silent.out = "banner\n";
  silent.json.clear();
  EXPECT_EQ(Judge(silent).failures.count(Failure::ModelError), 1u);

  ChildResult asan = CleanRun();
  asan.exitCode = 23;
  asan.err = "==1==ERROR: LeakSanitizer: detected memory leaks\nDirect leak of 128 byte(s)\n";
  o = Judge(asan);
  EXPECT_EQ(o.failures.count(Failure::Sanitizer), 1u);
  EXPECT_EQ(o.failures.count(Failure::ModelError), 0u);

  ChildResult kernel = CleanRun();
  kernel.out += "\nWarning: (W571) no activity or clock movement for sc_start() invocation\n";
  o = Judge(kernel);
  EXPECT_EQ(o.failures.count(Failure::KernelReport), 1u);
}

TEST(SoakVerdict, LostRequestsAndRestViolations) {
  ChildResult r = CleanRun();
  r.exitCode = 1;
  r.out =
      "==== zelsim summary ====\nzelsim: rest-state violation: link 0: returnTokenCount 3, expected 0\n"
      "zelsim: rest-state violation: 2 request flits alive\n";
  std::string json = kCleanJson;
  json.replace(json.find("\"outstanding\": 0"), 16, "\"outstanding\": 2");
  json.replace(json.find("\"completed\": 7"), 14, "\"completed\": 5");
  json.replace(json.find("\"ok\""), 4, "[\"link 0\", \"flits\"]");
  r.json = json;
  const Outcome o = Judge(r);
  EXPECT_EQ(o.restViolations, 2u);
  EXPECT_EQ(o.failures.at(Failure::RestViolation), 2u);
  EXPECT_EQ(o.failures.at(Failure::Unanswered), 2u);
  EXPECT_EQ(o.failures.count(Failure::ModelError), 0u);

  ChildResult noCheck = CleanRun();
  noCheck.json = std::string(kCleanJson).replace(std::string(kCleanJson).find(",\n  \"rest_state\""), 21, "");
  EXPECT_EQ(Judge(noCheck).failures.count(Failure::NoResults), 1u);
}

TEST(SoakVerdict, ZelsimsOwnEndings) {
  ChildResult stopped = CleanRun();  // the model's exit(0), caught by zelsim
  stopped.exitCode = 3;
  stopped.out = "banner\n== ERROR - VC3 did not receive contiguous packet of tag :5 : flit\n";
  stopped.err = "zelsim: the model stopped the run\n";
  stopped.json.clear();
  Outcome o = Judge(stopped);
  EXPECT_EQ(o.failures.size(), 1u);
  EXPECT_EQ(o.failures.count(Failure::ModelError), 1u);

  ChildResult stuck = CleanRun();
  stuck.exitCode = 4;
  stuck.out = "banner\nzelsim: deadlock: no flit moved for 100000 ns with 12 requests outstanding\n";
  stuck.err = "zelsim: deadlock: no flit moved for 100000 ns with 12 requests outstanding\n";
  stuck.json.clear();
  o = Judge(stuck);
  EXPECT_EQ(o.failures.size(), 1u);
  ASSERT_EQ(o.failures.count(Failure::Deadlock), 1u);
  EXPECT_NE(o.details[0].find("12 requests outstanding"), std::string::npos);
}

TEST(SoakVerdict, RefusalAndTimeout) {
  ChildResult refused = CleanRun();
  refused.exitCode = 2;
  refused.out.clear();
  refused.err = "zelsim: --set NUM_QUAD=2: unknown key 'NUM_QUAD'\n";
  Outcome o = Judge(refused);
  ASSERT_EQ(o.failures.count(Failure::Refused), 1u);
  EXPECT_NE(o.details[0].find("unknown key"), std::string::npos);

  ChildResult slow = CleanRun();
  slow.exited = false;
  slow.signal = 9;
  slow.timedOut = true;
  slow.out = "banner\n";
  slow.json.clear();
  o = Judge(slow);
  EXPECT_EQ(o.failures.count(Failure::Timeout), 1u);
  EXPECT_EQ(o.failures.count(Failure::ModelError), 0u);
}

TEST(SoakVerdict, KnownIssueNeedsItsMessageAndItsSetting) {
  ChildResult r = CleanRun();
  r.exited = false;
  r.signal = 6;
  r.json.clear();
  r.out =
      "banner\n=[533600 ps]= ERROR - Received PRE prt:1 bnk:0 row:0 col:0 tag:4294967295 in Vault 14 "
      "when we shouldn't have\n";
  const std::vector<std::string> refresh = {"zelsim", "--set", "REFRESH_ENABLED=true"};
  Outcome o = Judge(r, refresh);
  EXPECT_EQ(o.knownIssue, "bank-ownership");
  EXPECT_FALSE(o.Passed());  // still a model error; the caller decides
  EXPECT_TRUE(Judge(r, {"zelsim"}).knownIssue.empty());
  // Another failure beside it is not explained by the issue.
  r.out += "zelsim: rest-state violation: link 0: 3 tokens missing\n";
  EXPECT_TRUE(Judge(r, refresh).knownIssue.empty());
  ChildResult other = CleanRun();
  other.exited = false;
  other.signal = 6;
  other.json.clear();
  other.out = "=[1 us]= ERROR - Link Master 0 buffer exceeded capacity\n";
  EXPECT_TRUE(Judge(other, refresh).knownIssue.empty());

  // A stall is known only for a host that batches its token returns.
  ChildResult stalled = CleanRun();
  stalled.exitCode = 4;
  stalled.json.clear();
  stalled.err = "zelsim: deadlock: no flit moved for 100000 ns with 707 requests outstanding\n";
  EXPECT_EQ(Judge(stalled, {"zelsim", "--token-return-wait", "500"}).knownIssue, "smoothing-stall");
  EXPECT_TRUE(Judge(stalled, {"zelsim"}).knownIssue.empty());
}

TEST(SoakJson, ReadsWhatZelsimWrites) {
  JsonValue v;
  std::string error;
  ASSERT_TRUE(ParseJson("{\"a\": [1, -2.5e1, true, null], \"b\": \"x\\\"y\\u0001\"}", v, error)) << error;
  ASSERT_EQ(v.Find("a")->items.size(), 4u);
  EXPECT_DOUBLE_EQ(v.Find("a")->items[1].number, -25);
  EXPECT_EQ(v.Find("b")->text, std::string("x\"y\x01"));
  EXPECT_FALSE(ParseJson("{\"a\": 1", v, error));
  EXPECT_FALSE(ParseJson("{\"a\": 1} x", v, error));
}

}  // namespace
}  // namespace Soak
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
