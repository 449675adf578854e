// status-agent: follows the shared tables the kernel agent writes and
// publishes what it derives from them to other processes.
//
//   status-agent [--socket PATH] [--group GROUP] [--error4 TABLE]
//                [--error6 TABLE] [--leaked TABLE]
//
// It hosts KernelUnprogrammedRouteCounterSm (per-VRF counts of failed
// routes), KernelUnprogrammedRouteSplitterSm (per-VRF sets of failed keys)
// and ConnectedRouteLeakSourceVrfSm (the reverse index of leaked connected
// routes), and serves one directory through a mount at PATH:
//
//   counts  Memtab::KernelUnprogrammedRoute::UnprogrammedRouteCountByVrf
//   routes  Memtab::KernelUnprogrammedRoute::UnprogrammedRouteByVrf
//   leaks   Routing::ConnectedRouteLeakLocalStatus
//
// `routinglib show unprogrammed` reads it. Everything runs on one event loop
// on the main thread; SIGTERM or SIGINT stops it cleanly.
#include <csignal>
#include <iostream>
#include <string>

#include "Loop/EventLoop.h"
#include "Memtab/Table.h"
#include "Mount/Mount.h"
#include "RoutingLib/ConnectedRouteLeakSourceVrfSm.h"
#include "RoutingLib/KernelUnprogrammedRouteSplitterSm.h"

namespace {

using namespace Memtab::KernelUnprogrammedRoute;

Loop::EventLoop* gLoop = nullptr;

void onSignal(int) {
  if (gLoop != nullptr) gLoop->stop();
}

int usage() {
  std::cerr << "usage: status-agent [--socket PATH] [--group GROUP] [--error4 TABLE] [--error6 TABLE]\n"
               "                    [--leaked TABLE]\n";
  return 2;
}

// The keys a table held when this agent first mapped it, announced to the
// machines one by one: the splitter needs them, and the counter, made over
// empty tables, counts them once.
template <typename V>
class Replay : public Memtab::Notifiee<ErrorKey> {
 public:
  using Handle = void (*)(void* machines, const ErrorKey&);
  Replay(const Memtab::Table<V>& table, void* machines, Handle handle)
      : table_(table), machines_(machines), handle_(handle) {}
  void onKey(const ErrorKey& k) override { handle_(machines_, k); }
  // After the table's notifications were delivered: replays once, when the
  // table is first mapped.
  void afterNotifications() {
    if (done_) return;
    auto* reader = dynamic_cast<Memtab::Reader<V>*>(const_cast<Memtab::Table<V>*>(&table_));
    if (reader == nullptr || reader->mountStatus() == Memtab::MountStatus::unmounted) return;
    done_ = true;
    reader->replay(*this);
  }

 private:
  const Memtab::Table<V>& table_;
  void* machines_;
  Handle handle_;
  bool done_ = false;
};

struct Machines {
  Cog::Ptr<KernelUnprogrammedRouteCounterSm> counter;
  Cog::Ptr<KernelUnprogrammedRouteSplitterSm> splitter;
};

}  // namespace

int main(int argc, char** argv) {
  std::string socket = "/tmp/routinglib-status.sock", group;
  std::string error4 = "unprog.error", error6 = "unprog.error6", leaked = "crl.leaked";
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (i + 1 >= argc) return usage();
    const std::string v = argv[++i];
    if (a == "--socket") socket = v;
    else if (a == "--group") group = v;
    else if (a == "--error4") error4 = v;
    else if (a == "--error6") error6 = v;
    else if (a == "--leaked") leaked = v;
    else return usage();
  }
  try {
    // The machines start over empty local tables; the shared ones are bound
    // after, and what they hold is replayed when they are first mapped.
    auto status = unprogrammedRouteFactory(Cog::Name("status"));
    auto counts = unprogrammedRouteCountByVrfFactory();
    auto sets = unprogrammedRouteByVrfFactory();
    Machines m;
    m.counter = KernelUnprogrammedRouteCounterSmIs(status, counts);
    m.splitter = KernelUnprogrammedRouteSplitterSmIs(status, sets);
    status->errorReaderIs(error4);
    status->error6ReaderIs(error6);
    Replay<Error> replay4(status->error(), &m, [](void* p, const ErrorKey& k) {
      static_cast<Machines*>(p)->counter->handleRoute(k);
      static_cast<Machines*>(p)->splitter->handleRoute(k);
    });
    Replay<Error6> replay6(status->error6(), &m, [](void* p, const ErrorKey& k) {
      static_cast<Machines*>(p)->counter->handleRoute6(k);
      static_cast<Machines*>(p)->splitter->handleRoute6(k);
    });

    // Tables that exist already are mapped by now: what they hold is
    // replayed before anything else happens.
    status->errorProcessNotifications();
    replay4.afterNotifications();
    status->error6ProcessNotifications();
    replay6.afterNotifications();

    auto crl = Routing::connectedRouteLeakStatusFactory(Cog::Name("status"));
    crl->leakedRouteReaderIs(leaked);
    auto crlLocal = Routing::connectedRouteLeakLocalStatusFactory();
    auto leakSm = Routing::ConnectedRouteLeakSourceVrfSmIs(crl, crlLocal);

    auto dir = Cog::allocate<Cog::Dir>(Cog::Name("status"));
    dir->entityIs(Cog::Name("counts"), counts);
    dir->entityIs(Cog::Name("routes"), sets);
    dir->entityIs(Cog::Name("leaks"), crlLocal);
    Mount::Options options;
    options.group = group;
    Mount::Publisher publisher(socket, dir, options);

    Loop::EventLoop loop;
    gLoop = &loop;
    std::signal(SIGTERM, onSignal);
    std::signal(SIGINT, onSignal);
    loop.fdIs(status->errorFd(), [&] {
      status->errorProcessNotifications();
      replay4.afterNotifications();
    });
    loop.fdIs(status->error6Fd(), [&] {
      status->error6ProcessNotifications();
      replay6.afterNotifications();
    });
    loop.fdIs(crl->leakedRouteFd(), [&] { crl->leakedRouteProcessNotifications(); });
    loop.sourceIs(publisher);
    std::cout << "status-agent: serving counts, routes and leaks at " << socket << std::endl;
    loop.run();
    std::cout << "status-agent: stopping: " << counts->errorCount().size() << " VRFs counted, "
              << publisher.subscribers() << " subscribers" << std::endl;
    gLoop = nullptr;
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "status-agent: " << e.what() << std::endl;
    return 1;
  }
}
