#include <cstdio>

#include "tarni/ca.h"
#include "tarni/characternodeinfo.h"

int main() {
  if (!tarni::RegisterModule(tarni::ca::GetModuleBlock())) return 1;
  auto node = tarni::CreateNodeInfo(tarni::Uuid(), tarni::String());
  if (!node) return 2;
  std::printf("%s", node.value()->ToString().GetCString());
  return 0;
}
