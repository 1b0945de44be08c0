// SPDX-License-Identifier: Apache-2.0
#include "apps/zelsim/link_trace.h"

#include <cstdio>

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Bench {

namespace {

const std::string kVcdSuffix = ".vcd";

bool EndsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

}  // namespace

LinkVcd::LinkVcd(const std::string& path, unsigned links)
    : path_(path),
      written_(EndsWith(path, kVcdSuffix) ? path : path + kVcdSuffix),
      requests_(links),
      responses_(links) {
  // The kernel adds the suffix to the name it is given.
  file_ = sc_core::sc_create_vcd_trace_file(written_.substr(0, written_.size() - kVcdSuffix.size()).c_str());
  // Picoseconds, the kernel's resolution, whatever the default; the kernel
  // would tell so on standard output, among the model's text.
  sc_core::sc_report_handler::set_actions("tracing timescale unit set", sc_core::SC_INFO,
                                          sc_core::SC_DO_NOTHING);
  file_->set_time_unit(1, sc_core::SC_PS);
  for (unsigned link = 0; link < links; ++link) {
    Trace(requests_[link], "link" + std::to_string(link) + ".request");
    Trace(responses_[link], "link" + std::to_string(link) + ".response");
  }
}

LinkVcd::~LinkVcd() {
  // The copies were never counted as live flits: they go as blank ones.
  for (std::vector<Traced>* list : {&requests_, &responses_}) {
    for (Traced& traced : *list) traced.flit.command = NULL_COMMAND;
  }
}

void LinkVcd::Trace(Traced& traced, const std::string& name) {
  sc_trace(file_, traced.flit, name);
  sc_core::sc_trace(file_, traced.flit.header, name + ".header");
  sc_core::sc_trace(file_, traced.flit.tail, name + ".tail");
  sc_core::sc_trace(file_, traced.flit.flitNumber, name + ".flitNumber", 32);
  sc_core::sc_trace(file_, traced.flit.returnTokens, name + ".returnTokens", 32);
  sc_core::sc_trace(file_, traced.flits, name + ".flits", 64);
}

void LinkVcd::Copy(Traced& traced, const Flit& flit) {
  traced.flit = flit;
  ++traced.flits;
}

void LinkVcd::FlitSent(unsigned link, const Flit& flit) {
  if (link < requests_.size()) Copy(requests_[link], flit);
}

void LinkVcd::FlitTaken(unsigned link, const Flit& flit) {
  if (link < responses_.size()) Copy(responses_[link], flit);
}

bool LinkVcd::Close() {
  if (file_ == nullptr) return true;
  sc_core::sc_close_vcd_trace_file(file_);
  file_ = nullptr;
  return written_ == path_ || std::rename(written_.c_str(), path_.c_str()) == 0;
}

void ResponseLog::FlitTaken(unsigned link, const Flit& flit) {
  out_ << sc_core::sc_time_stamp().value() << ' ' << link << ' ' << flit << '\n';
}

}  // namespace Bench
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
