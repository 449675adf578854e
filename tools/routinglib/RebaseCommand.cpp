// `routinglib rebase`: rebases UCMP weights into a hardware entry budget.
//
//   routinglib rebase --max-ucmp N --deviation D [--float | --unsigned] [--json] W...
//   routinglib rebase --max-ucmp N --balanced [--float | --unsigned] [--json] W...
//
// Weights are doubles by default; --float reads them as 32-bit floats and
// --unsigned as unsigned 32-bit integers, as the library's three overloads
// take them. --balanced runs the balanced rebase instead (the weights that
// maximise the worst next hop's share of its ideal within the budget; it
// takes no deviation), on the weights widened to double. Prints
//   status: <rebaseSuccess|rebaseUnconverged|rebaseTruncated>
//   weights: w0 w1 ...
// or, with --json, the one line {"status": "<name>", "weights": [w0, w1, ...]}.
//
// The library aborts on a broken precondition, so everything is checked here
// first: a deviation outside [0, 1] (or NaN), no weights, weights that sum to
// 0, a malformed or non-finite number and a negative weight (-0 among them:
// next-hop weights are not negative, whatever the library makes of them) are
// refused with a one-line error and exit status 2.
#include <charconv>
#include <cmath>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <system_error>
#include <vector>

#include "Command.h"
#include "RoutingLib/UcmpWeightRebase.h"

namespace routinglib {
namespace {

constexpr const char* kUsage =
    "usage: routinglib rebase --max-ucmp N (--deviation D | --balanced) [--float | --unsigned] "
    "[--json] W...\n"
    "Rebases next-hop weights W... into integer weights that fit a budget of N entries.\n"
    "  --deviation D  the largest relative deviation from the ideal shares, in [0, 1]\n"
    "  --balanced     instead, the weights that give the worst next hop the largest\n"
    "                 share of its ideal within the budget\n"
    "  --float        read the weights as 32-bit floats (default: doubles)\n"
    "  --unsigned     read the weights as unsigned 32-bit integers\n"
    "  --json         {\"status\": \"<name>\", \"weights\": [w0, ...]} on one line\n"
    "Prints \"status: <rebaseSuccess|rebaseUnconverged|rebaseTruncated>\" and\n"
    "\"weights: w0 w1 ...\".\n";

enum class Kind { doubles, floats, unsigneds };

// The whole of `text` as a T, or nullopt (with the reason in `why`).
template <typename T>
std::optional<T> parseWhole(const std::string& text, std::string& why) {
  T value{};
  const char* first = text.data();
  const char* last = first + text.size();
  const auto [end, ec] = std::from_chars(first, last, value);
  if (ec == std::errc::result_out_of_range) {
    why = "out of range";
    return std::nullopt;
  }
  if (ec != std::errc() || end != last || text.empty()) {
    why = "not a number";
    return std::nullopt;
  }
  return value;
}

// A weight as the chosen overload takes it, widened to the double the
// library's core computes with.
std::optional<double> parseWeight(const std::string& text, Kind kind, std::string& why) {
  if (!text.empty() && text[0] == '-') {
    why = "negative";
    return std::nullopt;
  }
  if (kind == Kind::unsigneds) {
    const auto v = parseWhole<uint32_t>(text, why);
    if (!v) return std::nullopt;
    return static_cast<double>(*v);
  }
  std::optional<double> v;
  if (kind == Kind::floats) {
    const auto f = parseWhole<float>(text, why);
    if (f) v = static_cast<double>(*f);
  } else {
    v = parseWhole<double>(text, why);
  }
  if (v && !std::isfinite(*v)) {
    why = "not a finite number";
    return std::nullopt;
  }
  return v;
}

int refuse(std::ostream& err, const std::string& message) {
  err << "routinglib rebase: " << message << "\n";
  return kExitUsage;
}

int rebaseMain(const Args& args, std::ostream& out, std::ostream& err) {
  std::optional<uint64_t> maxUcmp;
  std::optional<float> deviation;
  bool json = false;
  bool balanced = false;
  bool asFloat = false;
  bool asUnsigned = false;
  std::vector<std::string> weightTexts;
  std::string why;

  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "--max-ucmp" || a == "--deviation") {
      if (i + 1 == args.size()) return refuse(err, a + " needs a value");
      const std::string& value = args[++i];
      if (a == "--max-ucmp") {
        if (!value.empty() && value[0] == '-') return refuse(err, "--max-ucmp '" + value + "' is negative");
        maxUcmp = parseWhole<uint64_t>(value, why);
        if (!maxUcmp) return refuse(err, "--max-ucmp '" + value + "' is " + why);
      } else {
        deviation = parseWhole<float>(value, why);
        if (!deviation) return refuse(err, "--deviation '" + value + "' is " + why);
        if (!(*deviation >= 0.0f && *deviation <= 1.0f))
          return refuse(err, "--deviation '" + value + "' is outside [0, 1]");
      }
    } else if (a == "--json") {
      json = true;
    } else if (a == "--balanced") {
      balanced = true;
    } else if (a == "--float") {
      asFloat = true;
    } else if (a == "--unsigned") {
      asUnsigned = true;
    } else if (a.size() >= 2 && a[0] == '-' && a[1] == '-') {
      return refuse(err, "unknown option '" + a + "' (" + usageLine(kUsage) + ")");
    } else {
      weightTexts.push_back(a);
    }
  }
  if (!maxUcmp) return refuse(err, "--max-ucmp is required");
  if (balanced && deviation) return refuse(err, "--deviation does not apply to --balanced");
  if (!balanced && !deviation) return refuse(err, "--deviation (or --balanced) is required");
  if (asFloat && asUnsigned) return refuse(err, "--float and --unsigned exclude each other");
  if (weightTexts.empty()) return refuse(err, "no weights given");

  Kind kind = asFloat ? Kind::floats : asUnsigned ? Kind::unsigneds : Kind::doubles;
  std::vector<double> weights;
  weights.reserve(weightTexts.size());
  double sum = 0.0;  // in input order, as the library sums
  for (const std::string& text : weightTexts) {
    const auto w = parseWeight(text, kind, why);
    if (!w) return refuse(err, "weight '" + text + "' is " + why);
    weights.push_back(*w);
    sum += *w;
  }
  if (sum == 0) return refuse(err, "the weights sum to 0");

  // Each kind through its own overload; the parsed doubles hold every float
  // and unsigned value exactly.
  RoutingLib::UcmpRebaseResult result;
  if (balanced) kind = Kind::doubles;  // one function, on the widened weights
  switch (kind) {
    case Kind::doubles:
      result = balanced ? RoutingLib::rebaseWeightsBalanced(weights, *maxUcmp)
                        : RoutingLib::rebaseWeights(std::move(weights), *maxUcmp, *deviation);
      break;
    case Kind::floats:
      result = RoutingLib::rebaseWeights(std::vector<float>(weights.begin(), weights.end()),
                                         *maxUcmp, *deviation);
      break;
    case Kind::unsigneds:
      result = RoutingLib::rebaseWeights(std::vector<uint32_t>(weights.begin(), weights.end()),
                                         *maxUcmp, *deviation);
      break;
  }
  const auto& outWeights = result.outWeight();
  if (json) {
    out << "{\"status\": \"" << result.status() << "\", \"weights\": [";
    for (uint64_t i = 0; i < outWeights.size(); ++i) out << (i ? ", " : "") << outWeights[i];
    out << "]}\n";
  } else {
    out << "status: " << result.status() << "\nweights:";
    for (uint32_t w : outWeights) out << " " << w;
    out << "\n";
  }
  return 0;
}

Registration reg{"rebase", "rebase UCMP weights into a hardware entry budget", kUsage,
                 &rebaseMain};

}  // namespace
}  // namespace routinglib
