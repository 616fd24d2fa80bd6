#include <cstdio>

#include "tarni/characternodeinfo.h"
#include "tarni/module.h"

int main() {
  auto loaded = tarni::LoadPlugin(PLUGIN_PATH);
  if (!loaded) {
    std::fprintf(stderr, "%s\n", loaded.error().GetMessage().data());
    return 1;
  }
  auto node = tarni::CreateNodeInfo(tarni::Uuid(), tarni::String());
  if (!node) return 2;
  std::printf("%s", node.value()->ToString().GetCString());
  return 0;
}
