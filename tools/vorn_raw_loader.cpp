#include "io/ipc/loader_child.h"

int main(int argc, char** argv) {
  return vorn::ipc::runRawLoader(argc, argv);
}
