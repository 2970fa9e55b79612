// poller.cc - see poller.hh. Invariant: commands run in their order, in the loop; a queued kAttach owns its descriptor.
#include "poller.hh"

#include <fcntl.h>
#include <unistd.h>

namespace mqbridge {

struct Poller::Watch {
  uv_poll_t handle;
  int fd;
  int events;
  natsConnection* connection;
};

Poller::Poller(uv_loop_t* loop) : loop_(loop) {
  uv_async_init(loop, &wake_, [](uv_async_t* handle) { static_cast<Poller*>(handle->data)->RunQueued(); });
  wake_.data = this;
}

void Poller::Use(natsOptions* options) { natsOptions_SetEventLoop(options, this, OnAttach, OnRead, OnWrite, OnDetach); }

void Poller::Close() {
  {
    const std::lock_guard guard(lock_);
    closed_ = true;
    for (const Command& command : queued_) {
      if (command.kind == Command::kAttach) close(command.value);
    }
    queued_.clear();
  }
  Drop();
  uv_close(reinterpret_cast<uv_handle_t*>(&wake_), nullptr);
}

// ---- Called by libnats, on any thread ----

natsStatus Poller::OnAttach(void** self, void* poller, natsConnection* connection, natsSock socket) {
  const int fd = fcntl(socket, F_DUPFD_CLOEXEC, 0);
  if (fd < 0) return NATS_SYS_ERROR;
  *self = poller;
  return static_cast<Poller*>(poller)->Put({Command::kAttach, fd, connection});
}

natsStatus Poller::OnRead(void* self, bool add) {
  return static_cast<Poller*>(self)->Put({Command::kRead, add, nullptr});
}

natsStatus Poller::OnWrite(void* self, bool add) {
  return static_cast<Poller*>(self)->Put({Command::kWrite, add, nullptr});
}

natsStatus Poller::OnDetach(void* self) { return static_cast<Poller*>(self)->Put({Command::kDetach, 0, nullptr}); }

// Runs the command at once if this is the loop's thread and no command is queued.
natsStatus Poller::Put(Command command) {
  {
    const std::lock_guard guard(lock_);
    if (closed_) {
      if (command.kind == Command::kAttach) close(command.value);
      return NATS_OK;
    }
    if (std::this_thread::get_id() != thread_ || !queued_.empty()) {
      queued_.push_back(command);
      uv_async_send(&wake_);
      return NATS_OK;
    }
  }
  Run(command);
  return NATS_OK;
}

// ---- In the loop ----

void Poller::RunQueued() {
  for (;;) {
    std::unique_lock guard(lock_);
    if (queued_.empty()) return;
    const Command command = queued_.front();
    queued_.pop_front();
    guard.unlock();
    Run(command);
  }
}

void Poller::Run(const Command& command) {
  switch (command.kind) {
    case Command::kAttach:
      return Attach(command.value, command.connection);
    case Command::kRead:
      return Wait(UV_READABLE, command.value != 0);
    case Command::kWrite:
      return Wait(UV_WRITABLE, command.value != 0);
    case Command::kDetach:
      return Drop();
  }
}

// Without a handle the connection stays silent, and unanswered pings end it.
void Poller::Attach(int fd, natsConnection* connection) {
  Drop();
  auto* const watch = new Watch{{}, fd, 0, connection};
  if (uv_poll_init(loop_, &watch->handle, fd) != 0) {
    close(fd);
    delete watch;
    return;
  }
  watch->handle.data = watch;
  watch_ = watch;
  Wait(UV_READABLE, true);
}

void Poller::Wait(int event, bool add) {
  if (watch_ == nullptr) return;
  watch_->events = add ? watch_->events | event : watch_->events & ~event;
  watch_->events != 0 ? uv_poll_start(&watch_->handle, watch_->events, OnReady) : uv_poll_stop(&watch_->handle);
}

void Poller::Drop() {
  if (watch_ == nullptr) return;
  uv_close(reinterpret_cast<uv_handle_t*>(&watch_->handle), [](uv_handle_t* handle) {
    auto* const watch = static_cast<Watch*>(handle->data);
    close(watch->fd);
    delete watch;
  });
  watch_ = nullptr;
}

// On an error libnats reads, to find the cause, and reconnects. The first event may end the watch.
void Poller::OnReady(uv_poll_t* handle, int status, int events) {
  natsConnection* const connection = static_cast<Watch*>(handle->data)->connection;
  if (status != 0 || (events & UV_READABLE) != 0) natsConnection_ProcessReadEvent(connection);
  const bool is_over = uv_is_closing(reinterpret_cast<uv_handle_t*>(handle)) != 0;
  if (status == 0 && (events & UV_WRITABLE) != 0 && !is_over) natsConnection_ProcessWriteEvent(connection);
}

}  // namespace mqbridge
