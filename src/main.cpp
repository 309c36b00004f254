#include <cstdio>
#include <cstdlib>

#include "core/application.hpp"

int main(int argc, char** argv) {
  int status = Application::instance().main(argc, argv);
  // The tree is gone by now. Leave without static destructors: a destruction
  // that overran its time limit may still be running on its own thread.
  std::fflush(nullptr);
  std::_Exit(status);
}
