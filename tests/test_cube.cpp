// SPDX-License-Identifier: Apache-2.0
// The cube top: entry points, environment, banner, structure and setters.
#include "test_support.h"
#include "zel2/zel2_link.h"
#include "zel2/zel2_quad.h"
#include "zel2/zel2_slice.h"
#include "zel2/zelsim.h"

using namespace Sornak::Internal::ZEL2;
using zelsim_test::CaptureStdout;
using zelsim_test::Ns;
using zelsim_test::Ps;

namespace {

// Binds every port of a cube to signals, as a host would.
struct CubeHarness {
  sc_core::sc_vector<sc_core::sc_signal<Flit_P>> requests{"requests"};
  sc_core::sc_vector<sc_core::sc_signal<Flit_P>> responses{"responses"};
  sc_core::sc_signal<bool> clk{"clk"};
  explicit CubeHarness(zel2_cube& cube) {
    requests.init(cube.requestLinks.size());
    responses.init(cube.responseLinks.size());
    for (size_t i = 0; i < requests.size(); ++i) {
      cube.requestLinks[i](requests[i]);
      cube.responseLinks[i](responses[i]);
    }
    cube.clk(clk);
  }
};

zel2_cube& ElaborateAndRun(unsigned quads) {
  zelsim_test::ClearModelEnvironment();
  Config& cfg = *new Config();
  cfg.NUM_QUADS = cfg.NUM_LINKS = quads;
  cfg.NUM_VAULTS = quads * cfg.VAULTS_PER_QUAD;
  zel2_cube& cube = GetCube(cfg);
  CubeHarness harness(cube);
  sc_core::sc_start(Ns(100));
  EXPECT_EQ(sc_core::sc_time_stamp(), Ns(100));
  for (unsigned q = 0; q < quads; ++q) {
    EXPECT_EQ(cube.quads[q]->lswInterquadFlitsOut.size(), quads - 1);
    // Block names carry the quad and vault numbers.
    EXPECT_EQ(cube.quads[q]->link->name(),
              "zelsim_cube.quad" + std::to_string(q) + ".link" + std::to_string(q));
    EXPECT_EQ(std::string(cube.quads[q]->slices[1]->basename()), "slice" + std::to_string(4 * q + 1));
    EXPECT_EQ(cube.quads[q]->slices[1]->id, 4 * q + 1);
  }
  return cube;
}

}  // namespace

// The golden outputs run the four quads of the default shape.
TEST(CubeStructure, ElaboratesWithOneQuad) { ElaborateAndRun(1); }
TEST(CubeStructure, ElaboratesWithTwoQuads) { ElaborateAndRun(2); }
// Links above 3 have no width key: they run with link 3's lanes.
TEST(CubeStructure, ElaboratesWithEightQuadsWhoseUpperLinksTakeLinkThreesLanes) {
  zel2_cube& cube = ElaborateAndRun(8);
  for (unsigned q = 4; q < 8; ++q) EXPECT_EQ(cube.quads[q]->link->flitRate, cube.quads[3]->link->flitRate);
}

TEST(CubeClock, TogglesWithTheCorePeriod) {
  zelsim_test::ClearModelEnvironment();
  zel2_cube& cube = GetCube(*new Config());
  CubeHarness harness(cube);
  sc_core::sc_start(sc_core::SC_ZERO_TIME);
  EXPECT_TRUE(harness.clk.read());
  sc_core::sc_start(Ps(799));  // the first fall is at half a period
  EXPECT_TRUE(harness.clk.read());
  sc_core::sc_start(Ps(2));
  EXPECT_FALSE(harness.clk.read());
  sc_core::sc_start(Ps(800));
  EXPECT_TRUE(harness.clk.read());
}

// GetCube leaves the host's tokens at their default; CreateCube makes them
// the cube's. The banner shows once, however many cubes are made.
TEST(CubeEntryPoints, CreateCubeAssumesHostTokensFromCubeTokens) {
  zelsim_test::ClearModelEnvironment();
  zelsim_test::AllowKernelWarnings();  // the later cubes' name is taken
  CaptureStdout out;
  zel2_cube& cube = CreateCube(nullptr);
  EXPECT_EQ(cube.cfg.BFM_TOKENS_PER_LINK, 100u);
  EXPECT_EQ(GetCube(static_cast<std::string*>(nullptr)).cfg.BFM_TOKENS_PER_LINK, 0u);
  GetCube(*new Config());
  const std::string text = out.str();
  const std::string banner = std::string(80, '=') + "\nSornak ZEL2 SystemC simulator built from revision: ";
  ASSERT_NE(text.find(banner), std::string::npos);
  EXPECT_EQ(text.find(banner, text.find(banner) + 1), std::string::npos);
  EXPECT_NE(text.find("No config file specified for SystemC; using compiled defaults (use "
                      "LIBZEL_CONFIG_FILE to specify a config file)\n"),
            std::string::npos);
  EXPECT_NE(text.find("*** ASSUMING BFM_TOKENS_PER_LINK=100 (same as TOKENS_PER_LINK)\n"), std::string::npos);
}

// The token variables override both sides, up to 289 tokens.
TEST(CubeEntryPoints, TokenVariablesOverrideBothSides) {
  zelsim_test::ClearModelEnvironment();
  setenv("LIBZEL_NUM_TOKENS", "290", 1);
  EXPECT_DEATH(CreateCube(nullptr), "numTokens < 290");
  setenv("LIBZEL_NUM_TOKENS", "289", 1);
  setenv("ZEL_BFM_NUM_TOKENS", "-1", 1);
  EXPECT_DEATH(CreateCube(nullptr), "numTokens < 290");
  setenv("ZEL_BFM_NUM_TOKENS", "40", 1);
  CaptureStdout out;
  zel2_cube& cube = CreateCube(nullptr);
  EXPECT_EQ(cube.cfg.TOKENS_PER_LINK, 289u);
  EXPECT_EQ(cube.cfg.BFM_TOKENS_PER_LINK, 40u);
  EXPECT_NE(out.str().find("*** OVERWROTE TOKENS_PER_LINK TO 289\n*** OVERWROTE BFM_TOKENS_PER_LINK TO 40\n"),
            std::string::npos);
}

// A file name given to CreateCube is not read, nor is any other file; without
// one, CreateCube reads the file that LIBZEL_CONFIG_FILE names.
TEST(CubeEntryPoints, CreateCubeReadsTheFileOfTheEnvironment) {
  zelsim_test::ClearModelEnvironment();
  zelsim_test::AllowKernelWarnings();  // the second cube's name is taken
  zelsim_test::TempDir dir;
  setenv("LIBZEL_CONFIG_FILE",
         dir.Write("keys.ini", "TOKENS_PER_LINK = 64\nBFM_TOKENS_PER_LINK = 12\n").c_str(), 1);
  CaptureStdout out;
  EXPECT_EQ(CreateCube("/nonexistent/never-read.ini").cfg.TOKENS_PER_LINK, 100u);
  zel2_cube& cube = CreateCube(nullptr);
  EXPECT_EQ(cube.cfg.TOKENS_PER_LINK, 64u);
  // Without ZEL_BFM_NUM_TOKENS the host side follows the cube side, whatever the file said.
  EXPECT_EQ(cube.cfg.BFM_TOKENS_PER_LINK, 64u);
  EXPECT_EQ(out.str().find("No config file specified"), std::string::npos);
}

// Link parameters change the speed of all links, but one link's width. The
// golden outputs hold what the link setter says.
TEST(CubeSetters, ChangeTheConfigurationAndTheBlocks) {
  zelsim_test::ClearModelEnvironment();
  zel2_cube& cube = GetCube(*new Config());
  EXPECT_DIES_SAYING(cube.setLinkParams(4, 15.0f, 16), "== ERROR - Please pick a link value between 0 and 3");
  EXPECT_DIES_SAYING(cube.GetLinkRate(4), "== ERROR - Please pink a link value between 0 and 3");
  EXPECT_DIES_SAYING(cube.setLinkParams(0, 15.0f, 0), "numLanes > 0");
  EXPECT_DIES_SAYING(cube.setCubeTokens(0), "numTokens");
  CaptureStdout out;
  cube.setLinkParams(2, 12.5f, 8);
  EXPECT_EQ(cube.cfg.LINK_2_WIDTH, 8u);
  EXPECT_EQ(cube.cfg.LINK_0_WIDTH, 16u);
  // 128 bits over 16 lanes at 12.5 Gb/s: 8 x 0.08 ns.
  EXPECT_EQ(cube.GetLinkRate(0), Ps(640));
  EXPECT_EQ(GetLinkRate(&cube, 2), Ps(1280));
  // Every link takes the width of the link named in the call.
  EXPECT_EQ(cube.quads[0]->link->flitRate, Ps(1280));
  cube.setTj(95);
  EXPECT_EQ(cube.cfg.Tj, 95u);
  EXPECT_NE(out.str().find("0 s: SYSTEMC CONFIG CHANGE: setting operating temperature (Tj)=95\n"),
            std::string::npos);
  cube.setCubeSize(4);
  EXPECT_EQ(cube.cfg.NUM_PARTITIONS, 4u);
  cube.setMaxBlockSize(64);
  EXPECT_EQ(cube.cfg.MAX_BLOCK_SIZE, 64u);
  cube.setCubeTokens(50);
  EXPECT_EQ(cube.cfg.TOKENS_PER_LINK, 50u);
  EXPECT_EQ(cube.quads[2]->link->returnTokenCount, 50u);
}
