// The TLS set-up of the websocket transport. The files are read here rather
// than by OpenSSL so that a file that cannot be opened is reported with the
// system's reason ("No such file or directory") instead of an OpenSSL error
// stack; what OpenSSL then rejects is reported with OpenSSL's reason.
#include "events/websocket_tls.h"

#include "api/quelora_exception.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace quelora::events {

namespace ssl = boost::asio::ssl;

namespace {

// The whole file, or the system's reason why it could not be read.
bool read_file(const std::string& path, std::string& contents, std::string& reason) {
    errno = 0;
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        reason = std::strerror(errno);
        return false;
    }
    contents.clear();
    char block[4096];
    size_t got = 0;
    while ((got = std::fread(block, 1, sizeof block, file)) > 0) contents.append(block, got);
    const bool failed = std::ferror(file) != 0;
    const int error = errno;
    std::fclose(file);
    if (failed) reason = std::strerror(error != 0 ? error : EIO);
    return !failed;
}

// One of the three files: read it, hand it to OpenSSL, or throw with the
// format's wording ("... file '%s': %s"); rejected_format, for what OpenSSL
// rejects, may add a hint.
template <typename Load>
void load_file(const char* format, const char* rejected_format, const std::string& path,
               Load&& load) {
    std::string contents;
    std::string reason;
    if (!read_file(path, contents, reason)) {
        throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_INVALID_VALUE, format, path.c_str(),
                                reason.c_str());
    }
    boost::system::error_code error;
    load(boost::asio::buffer(contents), error);
    if (error) {
        std::string text = error.message();
        // For a file that PEM cannot parse Asio reports only "PEM lib"; the
        // reason ("no start line", say) is still in OpenSSL's error queue.
        const unsigned long queued = ERR_peek_error();
        if (error == boost::system::error_code(ERR_R_PEM_LIB, boost::asio::error::get_ssl_category()) &&
            queued != 0 && ERR_reason_error_string(queued) != nullptr) {
            text = ERR_reason_error_string(queued);
        }
        ERR_clear_error();
        throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_INVALID_VALUE, rejected_format,
                                path.c_str(), text.c_str());
    }
}

} // namespace

std::unique_ptr<ssl::context> make_tls_context(const websocket_configuration& configuration) {
    auto tls = std::make_unique<ssl::context>(ssl::context::tls_server);
    tls->set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 |
                     ssl::context::no_sslv3 | ssl::context::no_tlsv1 | ssl::context::no_tlsv1_1 |
                     ssl::context::single_dh_use);
    // Belt and braces: the option bits above only switch versions off.
    SSL_CTX_set_min_proto_version(tls->native_handle(), TLS1_2_VERSION);

    const std::string passphrase = configuration.passphrase;
    tls->set_password_callback(
        [passphrase](size_t, ssl::context::password_purpose) { return passphrase; });

    load_file("The websocket server could not load the certificate file '%s': %s",
              "The websocket server could not load the certificate file '%s': %s",
              configuration.cert_file_name,
              [&](boost::asio::const_buffer contents, boost::system::error_code& error) {
                  tls->use_certificate_chain(contents, error);
              });
    load_file("The websocket server could not load the private key file '%s': %s",
              "The websocket server could not load the private key file '%s' (wrong pass phrase?): %s",
              configuration.key_file_name,
              [&](boost::asio::const_buffer contents, boost::system::error_code& error) {
                  tls->use_private_key(contents, ssl::context::pem, error);
              });
    load_file("The websocket server could not load the Diffie-Hellman parameters file '%s': %s",
              "The websocket server could not load the Diffie-Hellman parameters file '%s': %s",
              configuration.dh_params_file_name,
              [&](boost::asio::const_buffer contents, boost::system::error_code& error) {
                  tls->use_tmp_dh(contents, error);
              });
    return tls;
}

} // namespace quelora::events
