// The .cog.type section of the library: every registered generated type's
// full name, read back with readelf as any outside reader would.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <cstdio>
#include <set>
#include <string>

#include "Cog/Type.h"

namespace {

std::vector<std::string> sectionStrings(const char* library) {
  std::string command = std::string("readelf -p .cog.type ") + library + " 2>/dev/null";
  std::vector<std::string> out;
  FILE* p = popen(command.c_str(), "r");
  if (p == nullptr) return out;
  char line[1024];
  while (std::fgets(line, sizeof line, p)) {
    std::string s(line);
    auto close = s.find(']');
    if (s.find("[") == std::string::npos || close == std::string::npos) continue;
    std::string name = s.substr(close + 1);
    name.erase(0, name.find_first_not_of(' '));
    while (!name.empty() && (name.back() == '\n' || name.back() == ' ')) name.pop_back();
    if (!name.empty()) out.push_back(name);
  }
  pclose(p);
  return out;
}

// The shared object a type record lives in.
std::string libraryOf(const Cog::CogType* t) {
  Dl_info info;
  if (dladdr(static_cast<const void*>(t), &info) == 0 || info.dli_fname == nullptr) return "";
  char* real = realpath(info.dli_fname, nullptr);
  std::string path = real ? real : info.dli_fname;
  free(real);
  return path;
}

// The names in `library`'s table are exactly the registered types whose
// records live in that library.
void expectSectionMatchesRegistry(const char* library) {
  std::vector<std::string> inSection = sectionStrings(library);
  ASSERT_FALSE(inSection.empty()) << library;
  std::set<std::string> section(inSection.begin(), inSection.end());
  EXPECT_EQ(section.size(), inSection.size()) << "each name once";
  std::set<std::string> registered;
  for (const Cog::CogType* t : Cog::registeredTypes()) {
    char* real = realpath(library, nullptr);
    std::string wanted = real ? real : library;
    free(real);
    if (t->inSection() && libraryOf(t) == wanted) registered.insert(t->name());
  }
  for (const std::string& name : section) EXPECT_TRUE(registered.count(name)) << name;
  for (const std::string& name : registered) EXPECT_TRUE(section.count(name)) << name;
}

TEST(CogTypeSection, LibraryTableListsItsRegisteredTypes) {
  expectSectionMatchesRegistry(ROUTINGLIB_SO);
  auto names = sectionStrings(ROUTINGLIB_SO);
  EXPECT_NE(std::find(names.begin(), names.end(), "Memtab::Fib::FecId"), names.end());
}

TEST(CogTypeSection, TestSchemaHasItsOwnTable) {
  expectSectionMatchesRegistry(COGTEST_SO);
}

}  // namespace
