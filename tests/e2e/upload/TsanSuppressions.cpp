// Poco's libraries are not instrumented, so ThreadSanitizer does not see the atomic reference counts that decide which
// thread is the last to hold a socket or an event's delegate and destroys it. Only those destructions are named here:
// the frames of the receiver's own handlers are none of them.
#ifdef __SANITIZE_THREAD__
extern "C" const char* __tsan_default_suppressions();  // NOLINT(bugprone-reserved-identifier)

extern "C" const char* __tsan_default_suppressions() {  // NOLINT(bugprone-reserved-identifier)
  return "race:Poco::Delegate<*>::~Delegate\n"
         "race:Poco::Net::SocketImpl::close\n"
         "race:Poco::Net::TCPServer::run\n";
}
#endif
