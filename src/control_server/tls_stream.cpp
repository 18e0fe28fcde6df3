#include "control_server/tls_stream.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <sys/socket.h>

#include <cerrno>

namespace vesko {
namespace {

/// Collected output above this goes to the socket before more is taken.
constexpr std::size_t outputThreshold = 64 * 1024;

/// What SSL_get_error() says is right only with an empty queue; emptying an empty one costs more
/// than to look.
void clearErrors() {
  if (ERR_peek_error() != 0) ERR_clear_error();
}

bool wouldBlock(int error) {
  return error == EAGAIN || error == EWOULDBLOCK;
}

}  // namespace

/// The BIO under the SSL object: reads straight from the socket, writes into the output.
struct TlsStream::Transport {
  static int read(BIO* bio, char* into, int size) {
    auto* stream = static_cast<TlsStream*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    while (true) {
      const ssize_t count = ::recv(stream->fd_, into, static_cast<std::size_t>(size), 0);
      if (count == 0) BIO_set_flags(bio, BIO_FLAGS_IN_EOF);
      if (count >= 0) return static_cast<int>(count);
      if (errno == EINTR) continue;
      if (wouldBlock(errno)) BIO_set_retry_read(bio);
      return -1;
    }
  }

  static int write(BIO* bio, const char* bytes, int size) {
    auto* stream = static_cast<TlsStream*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    if (stream->output_.size() - stream->flushed_ >= outputThreshold &&
        stream->flush() != Status::done) {
      if (stream->hasOutput()) BIO_set_retry_write(bio);
      return -1;
    }
    stream->output_.append(bytes, static_cast<std::size_t>(size));
    return size;
  }

  static long control(BIO* bio, int command, long, void*) {
    switch (command) {
      case BIO_CTRL_FLUSH:
        return 1;
      case BIO_CTRL_EOF:
        return BIO_test_flags(bio, BIO_FLAGS_IN_EOF) != 0 ? 1 : 0;
      default:
        return 0;
    }
  }

  static BIO_METHOD* method() {
    static BIO_METHOD* const shared = [] {
      BIO_METHOD* made =
          BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "control server socket");
      BIO_meth_set_read(made, read);
      BIO_meth_set_write(made, write);
      BIO_meth_set_ctrl(made, control);
      return made;
    }();
    return shared;
  }
};

TlsContext makeTlsContext(const TlsIdentity& identity) {
  TlsContext context(SSL_CTX_new(TLS_server_method()));
  SSL_CTX* ctx = context.get();
  if (!ctx || SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION) != 1 ||
      SSL_CTX_set_max_proto_version(ctx, TLS1_3_VERSION) != 1 ||
      SSL_CTX_set_cipher_list(ctx,
                              "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-ECDSA-AES256-GCM-SHA384:"
                              "ECDHE-ECDSA-CHACHA20-POLY1305") != 1 ||
      SSL_CTX_set_ciphersuites(ctx,
                               "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:"
                               "TLS_CHACHA20_POLY1305_SHA256") != 1 ||
      SSL_CTX_use_certificate(ctx, identity.certificate.get()) != 1 ||
      SSL_CTX_use_PrivateKey(ctx, identity.key.get()) != 1) {
    return nullptr;
  }
  // A peer that closes without close_notify has ended its side, which is not worth an error: what
  // matters here, whether the request is complete, its Content-Length tells.
  SSL_CTX_set_options(ctx, SSL_OP_NO_TICKET | SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION |
                               SSL_OP_CIPHER_SERVER_PREFERENCE | SSL_OP_IGNORE_UNEXPECTED_EOF);
  SSL_CTX_set_session_cache_mode(ctx, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_num_tickets(ctx, 0);
  SSL_CTX_set_mode(ctx, SSL_MODE_RELEASE_BUFFERS | SSL_MODE_ENABLE_PARTIAL_WRITE |
                            SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  SSL_CTX_set_read_ahead(ctx, 1);
  return context;
}

TlsStream::TlsStream(SSL_CTX* context, int fd) : fd_(fd), ssl_(SSL_new(context)) {
  BIO* bio = ssl_ ? BIO_new(Transport::method()) : nullptr;
  if (!bio) {
    ssl_.reset();
    return;
  }
  BIO_set_data(bio, this);
  BIO_set_init(bio, 1);
  SSL_set_bio(ssl_.get(), bio, bio);
  SSL_set_accept_state(ssl_.get());
}

TlsStream::Status TlsStream::statusOf(int result) {
  switch (SSL_get_error(ssl_.get(), result)) {
    case SSL_ERROR_NONE:
      return Status::done;
    case SSL_ERROR_WANT_READ:
      return Status::wantRead;
    case SSL_ERROR_WANT_WRITE:
      return Status::wantWrite;
    case SSL_ERROR_ZERO_RETURN:
      return Status::ended;
    default:
      return Status::failed;
  }
}

TlsStream::Status TlsStream::accept() {
  if (!ssl_) return Status::failed;
  clearErrors();
  return statusOf(SSL_do_handshake(ssl_.get()));
}

TlsStream::Status TlsStream::read(std::span<char> into, std::size_t& count) {
  clearErrors();
  return statusOf(SSL_read_ex(ssl_.get(), into.data(), into.size(), &count));
}

TlsStream::Status TlsStream::write(std::string_view bytes, std::size_t& taken) {
  clearErrors();
  return statusOf(SSL_write_ex(ssl_.get(), bytes.data(), bytes.size(), &taken));
}

TlsStream::Status TlsStream::closeNotify() {
  clearErrors();
  const int result = SSL_shutdown(ssl_.get());
  // 0 means sent while the peer's own is still out, and that one is not waited for.
  return result >= 0 ? Status::done : statusOf(result);
}

TlsStream::Status TlsStream::flush() {
  while (flushed_ < output_.size()) {
    const ssize_t count = ::send(fd_, output_.data() + flushed_, output_.size() - flushed_, 0);
    if (count >= 0) {
      flushed_ += static_cast<std::size_t>(count);
    } else if (wouldBlock(errno)) {
      return Status::wantWrite;
    } else if (errno != EINTR) {
      output_.clear();
      flushed_ = 0;
      return Status::failed;
    }
  }
  output_ = {};
  flushed_ = 0;
  return Status::done;
}

}  // namespace vesko
