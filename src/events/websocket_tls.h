// The TLS set-up of the websocket transport: the certificate chain, the
// private key decrypted with the configured pass phrase and the
// Diffie-Hellman parameters, each failure reported with the file's name and
// the reason.
#pragma once

#include "events/websocket_configuration.h"

#include <boost/asio/ssl/context.hpp>

#include <memory>

namespace quelora::events {

// A server context that speaks TLS 1.2 and 1.3 only. Throws
// quelora_exception (QEL_LOG_WARNING, QEL_ERROR_INVALID_VALUE) naming the
// file that could not be read or loaded.
std::unique_ptr<boost::asio::ssl::context> make_tls_context(const websocket_configuration& configuration);

} // namespace quelora::events
