// Handlers of the FEC-mode reactors (schema/FecModeSm.cog).
#include "RoutingLib/FecModeSm.h"

#include <cstdlib>

#include "Cog/Assert.h"
#include "Cog/Trace.h"

COG_TRACE_HANDLE("FecModeSm");

namespace Ira {
namespace {

const L3::ProtocolAgentModelType& ribdModel() {
  static const L3::ProtocolAgentModelType model(Cog::String("ribd"));
  return model;
}

const L3::ProtocolAgentModelType& multiAgentModel() {
  static const L3::ProtocolAgentModelType model(Cog::String("multi-agent"));
  return model;
}

}  // namespace

void FecModeSm::handleProtocolAgentModel() {
  COG_TRACE(8, "void Ira::FecModeSm::handleProtocolAgentModel()");
  const L3::ProtocolAgentModelType& model = l3Config_->protocolAgentModel();
  if (model == ribdModel()) {
    fecModeStatus_->fecModeIs(Memtab::Fib::fecModePerVrf());
  } else if (model == multiAgentModel()) {
    fecModeStatus_->fecModeIs(Memtab::Fib::fecModeUnified());
  } else {
    COG_ASSERT_AT(0, "0", "FecModeSm", 55, __PRETTY_FUNCTION__);
  }
}

void FecModeSm::handleInitialized() {
  COG_TRACE(8, "void Ira::FecModeSm::handleInitialized()");
  initialized_ = true;
  // Built without a configuration, the machine waits for l3ConfigIs.
  if (l3Config_) handleProtocolAgentModel();
}

void FecModeRestartSm::handleInitialized() {
  COG_TRACE(8, "void Ira::FecModeRestartSm::handleInitialized()");
  initialized_ = true;
  oldFecModeIs(Memtab::Fib::fecModeInvalid());
  handleFecMode();
}

void FecModeRestartSm::handleFecMode() {
  COG_TRACE(8, "void Ira::FecModeRestartSm::handleFecMode()"
                   << " new fecMode is " << fecModeStatus_->fecMode() << " old fecMode is "
                   << oldFecMode_);
  const Memtab::Fib::FecMode mode = fecModeStatus_->fecMode();
  if (oldFecMode_ != Memtab::Fib::fecModeInvalid()) {
    // Leave at once, without comparing: any notification after the mode was
    // learnt means the process runs under a stale mode.
    std::exit(0);
  }
  oldFecModeIs(mode);
}

}  // namespace Ira
