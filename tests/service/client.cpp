// A client process of the service for the tests: opens a session and holds
// or waits for a resource, saying what happens on its standard output, then
// stays until it is killed.
//   service_client TARGET MODULE hold|wait OWNER RESOURCE
// Lines: "session ID", "waiting RESOURCE behind HOLDER", "granted",
// "failed DESCRIPTION", "refused CODE REASON", "ended CODE REASON".

#include <iostream>
#include <string>

#include <unistd.h>

#include <zuclient/zuclient.h>

int main(int argc, char** argv) {
  if (argc != 6) {
    std::cerr << "usage: service_client TARGET MODULE hold|wait OWNER RESOURCE\n";
    return 2;
  }
  const std::string target = argv[1], module = argv[2], owner = argv[4], resource = argv[5];
  try {
    ZU::client::ZUSession::Handlers handlers;
    handlers.onEnded = [](const grpc::Status& status) {
      std::cout << "ended " << ZU::client::ZUServiceError::codeName(status.error_code()) << " "
                << status.error_message() << std::endl;
    };
    ZU::client::ZUSession session(module, handlers, target);
    std::cout << "session " << session.id() << std::endl;
    auto held = session.acquire(owner, resource, 0, {},
                                [](const std::string& r, const std::string& holder) {
                                  std::cout << "waiting " << r << " behind " << holder << std::endl;
                                });
    std::cout << "granted" << std::endl;
    for (;;) pause();
  } catch (const ZU::client::ZUWaitError& error) {
    std::cout << "failed " << error.description() << std::endl;
  } catch (const ZU::client::ZUServiceError& error) {
    std::cout << "refused " << ZU::client::ZUServiceError::codeName(error.code()) << " "
              << error.reason() << std::endl;
  }
  for (;;) pause();
}
