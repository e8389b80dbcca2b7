#include <velantrix/KeyStorePlugin.h>

namespace Velantrix::Crypto::PKX509 {

KeyStorePlugin::KeyStorePlugin() = default;
KeyStorePlugin::~KeyStorePlugin() = default;

}  // namespace Velantrix::Crypto::PKX509
