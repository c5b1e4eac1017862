#include "DemoScene.h"

namespace demo {

bool addModel(Scene&, const std::string&, std::string& error) {
    error = "models are not read yet";
    return false;
}

} // namespace demo
