#include "tests/support/fixture.hh"
class QueueTest : public Fixture {};
TEST_F(QueueTest, Smoke) {
  SockRec rec;
  G_socket_trace = Trace::OnSocket;
  CreateSocket(&rec);
  OnSocketError(&rec, Trace::OnError);
  ClosedPort closed;
  SockAddrRec a = AddressOf("127.0.0.1", closed.port());
  ConnectSocket(&rec, &a);
  DeleteSocket(&rec);
  for (auto& t : Trace::Take()) puts(t.c_str());
  for (auto& t : Platform::Calls()) puts(t.c_str());
}
