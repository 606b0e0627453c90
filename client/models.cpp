#include "client/client.h"

#include "devices/models.h"

namespace kelvane::client {

std::vector<ModelInfo> builtInModels() {
    std::vector<ModelInfo> list;
    for (devices::Model& model : devices::models()) {
        list.push_back({.name = std::move(model.name), .text = std::move(model.text)});
    }
    return list;
}

} // namespace kelvane::client
