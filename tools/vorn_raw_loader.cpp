#include "io/ipc/loader_child.h"
#include "raw_loader_allocations.h"

int main(int argc, char** argv) {
  return vorn::ipc::runRawLoader(argc, argv, &vorn::loader::allocationRefused);
}
