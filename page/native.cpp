// The same stage outside of any browser: reads addresses from standard input, one a line, and
// writes for each what came of it.
#include <cstdio>
#include <iostream>
#include <string>

#include "page/stage.hpp"

int main() {
  using namespace velmar_2d::page;
  for (std::string address; std::getline(std::cin, address);) {
    Scene scene;
    Stage stage;
    if (std::string error = read_scene(address, scene); !error.empty()) {
      std::printf("%s\n", error.c_str());
      continue;
    }
    show(stage, scene, true);
    while (stage.scene.frame < scene.frame && stage.report.message.empty()) {
      show(stage, scene, false);
    }
    std::printf("%s %lld too coarse%s%s\n", fingerprint(*stage.mesh).c_str(),
                static_cast<long long>(stage.report.too_coarse),
                stage.report.message.empty() ? "" : ": ", stage.report.message.c_str());
  }
}
