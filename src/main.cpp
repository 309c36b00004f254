#include "core/application.hpp"

int main(int argc, char** argv) { return Application::instance().main(argc, argv); }
