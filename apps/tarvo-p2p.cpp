#include "startup/main.h"

int main(int argc, char** argv) {
  return RunHub(argc, argv);
}
