// lum-backend: the local back end for running the agent by hand, e.g.
//   lum-pki /tmp/pki --opid LUMDEV01 --port 8443
//   lum-backend --pki /tmp/pki --port 8443
// Every request, and every item of every data package received, is printed
// to stdout; Ctrl-C stops. Standard input is a support agent's console (see
// SupportConsole::HelpText): it queues tasks for devices in a support session,
// and every session change and task answer is printed as it happens.
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "Platform/JsonUtil.h"
#include "tools/backend/Backend.h"
#include "tools/backend/SupportConsole.h"

namespace {

using Lum::Tools::OcspMode;
using Lum::Tools::ServerCertKind;
using Lum::Tools::TlsVersion;

int Usage() {
  std::cerr << "usage: lum-backend --pki DIR [--port PORT] [--bind ADDR] [--tunables FILE]\n"
               "                   [--ocsp good|revoked|expired|stale|fresh-no-next-update|none]\n"
               "                   [--tls 1.2-1.3|1.1|1.2|1.3|1.1-1.3]\n"
               "                   [--server-cert default|untrusted|wronghost]\n"
               "                   [--allowed-ids ID,ID,...] [--region NAME]\n"
               "                   [--long-poll-ms N]\n"
               "                   [--update-payload FILE [--update-version V]\n"
               "                    [--update-block-bytes N] [--update-block-ms N]]\n"
               "  --long-poll-ms  how long a task poll with nothing to hand out is held\n"
               "                  before 204 (default 10000; keep it below the agent's\n"
               "                  message time-out)\n\n"
            << Lum::Tools::SupportConsole::HelpText()
            << "End of input does not stop the back end; SIGINT or SIGTERM does.\n";
  return 2;
}

bool ParseOcsp(const std::string& text, OcspMode* mode) {
  if (text == "good") {
    *mode = OcspMode::Good;
  } else if (text == "revoked") {
    *mode = OcspMode::Revoked;
  } else if (text == "expired") {
    *mode = OcspMode::Expired;
  } else if (text == "stale") {
    *mode = OcspMode::Stale;
  } else if (text == "fresh-no-next-update") {
    *mode = OcspMode::FreshWithoutNextUpdate;
  } else if (text == "none") {
    *mode = OcspMode::None;
  } else {
    return false;
  }
  return true;
}

bool ParseVersion(const std::string& text, TlsVersion* version) {
  if (text == "1.1") {
    *version = TlsVersion::Tls1_1;
  } else if (text == "1.2") {
    *version = TlsVersion::Tls1_2;
  } else if (text == "1.3") {
    *version = TlsVersion::Tls1_3;
  } else {
    return false;
  }
  return true;
}

bool ParseTlsRange(const std::string& text, TlsVersion* minVersion, TlsVersion* maxVersion) {
  size_t dash = text.find('-');
  if (dash == std::string::npos) {
    return ParseVersion(text, minVersion) && ParseVersion(text, maxVersion);
  }
  return ParseVersion(text.substr(0, dash), minVersion) &&
         ParseVersion(text.substr(dash + 1), maxVersion);
}

bool ParseServerCert(const std::string& text, ServerCertKind* kind) {
  if (text == "default") {
    *kind = ServerCertKind::Default;
  } else if (text == "untrusted") {
    *kind = ServerCertKind::UntrustedCa;
  } else if (text == "wronghost") {
    *kind = ServerCertKind::WrongHost;
  } else {
    return false;
  }
  return true;
}

// Connection threads print concurrently; whole records stay together.
std::mutex outputMutex;

std::vector<std::string> SplitIds(const std::string& text) {
  std::vector<std::string> ids;
  std::stringstream stream(text);
  std::string id;
  while (std::getline(stream, id, ',')) {
    if (!id.empty()) {
      ids.push_back(id);
    }
  }
  return ids;
}

void PrintPackage(const Lum::Tools::ReceivedPackage& package) {
  std::lock_guard<std::mutex> lock(outputMutex);
  std::cout << "data package from " << package.commonName << ": " << package.items.size()
            << " items, dropped " << package.dropped << ", rejected " << package.rejected << "\n";
  for (const auto& item : package.items) {
    std::cout << "data item from " << package.commonName << ": " << item << "\n";
  }
  std::cout << std::flush;
}

void PrintSessionEvent(const Lum::Tools::SupportSessionEvent& event) {
  std::lock_guard<std::mutex> lock(outputMutex);
  std::cout << Lum::Tools::SupportConsole::FormatEvent(event) << std::flush;
}

void PrintTaskAnswer(const Lum::Tools::TaskAnswer& answer) {
  std::lock_guard<std::mutex> lock(outputMutex);
  std::cout << Lum::Tools::SupportConsole::FormatAnswer(answer) << std::flush;
}

void PrintRequest(const Lum::Tools::RecordedRequest& request) {
  std::lock_guard<std::mutex> lock(outputMutex);
  std::cout << "#" << request.sequence << " " << request.clientCommonName << " " << request.method
            << " " << request.target << " -> " << request.status << "\n";
  for (const auto& field : request.headers) {
    std::cout << "  " << field.first << ": " << field.second << "\n";
  }
  if (!request.parts.empty()) {
    for (const auto& part : request.parts) {
      std::cout << "  part \"" << part.name << "\" file \"" << part.filename << "\" "
                << part.content.size() << " bytes\n";
    }
  } else if (!request.body.empty()) {
    std::cout << "  " << request.body << "\n";
  }
  std::cout << std::flush;
}

}  // namespace

int main(int argc, char** argv) {
  std::string pkiDir;
  std::string tunablesFile;
  std::string region;
  bool idsGiven = false;
  std::vector<std::string> allowedIds;
  std::string updatePayloadFile;
  Lum::Tools::UpdateOffer offer;
  long updateBlockMs = 0;
  Lum::Tools::BackendOptions options;
  options.port = 8443;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (i + 1 >= argc) {
      return Usage();
    }
    std::string value = argv[++i];
    bool ok = true;
    if (arg == "--pki") {
      pkiDir = value;
    } else if (arg == "--port") {
      options.port = std::atoi(value.c_str());
    } else if (arg == "--bind") {
      options.bindAddress = value;
    } else if (arg == "--ocsp") {
      ok = ParseOcsp(value, &options.ocsp);
    } else if (arg == "--tls") {
      ok = ParseTlsRange(value, &options.minTls, &options.maxTls);
    } else if (arg == "--server-cert") {
      ok = ParseServerCert(value, &options.serverCert);
    } else if (arg == "--tunables") {
      tunablesFile = value;
    } else if (arg == "--allowed-ids") {
      allowedIds = SplitIds(value);
      idsGiven = true;
    } else if (arg == "--region") {
      region = value;
    } else if (arg == "--update-payload") {
      updatePayloadFile = value;
    } else if (arg == "--update-version") {
      offer.version = value;
    } else if (arg == "--update-block-bytes") {
      offer.blockSize = static_cast<uint32_t>(std::strtoul(value.c_str(), nullptr, 10));
      ok = offer.blockSize > 0;
    } else if (arg == "--update-block-ms") {
      updateBlockMs = std::strtol(value.c_str(), nullptr, 10);
      ok = updateBlockMs >= 0;
    } else if (arg == "--long-poll-ms") {
      char* end = nullptr;
      const long hold = std::strtol(value.c_str(), &end, 10);
      ok = !value.empty() && *end == '\0' && hold > 0;
      options.longPollHold = std::chrono::milliseconds(hold);
    } else {
      ok = false;
    }
    if (!ok) {
      return Usage();
    }
  }
  if (pkiDir.empty()) {
    return Usage();
  }
  Lum::Tools::TestPki pki;
  std::string error;
  if (!pki.load(pkiDir, &error)) {
    std::cerr << "lum-backend: " << error << "\n";
    return 1;
  }
  options.onRequest = PrintRequest;
  options.onPackage = PrintPackage;
  options.onSessionEvent = PrintSessionEvent;
  options.onTaskAnswer = PrintTaskAnswer;

  // Wait for the stop signal synchronously rather than in a handler.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  Lum::Tools::Backend backend(pki, options);
  if (!region.empty() && !backend.setUploadRegion(region)) {
    std::cerr << "lum-backend: the region must be a DNS label: " << region << "\n";
    return Usage();
  }
  if (idsGiven) {
    backend.setAllowedDataItemIds(allowedIds);
  }
  if (!updatePayloadFile.empty()) {
    // An update every device is offered, served a block at a time with a
    // pause between blocks so a demo can watch the percentage move. Offered
    // before the port opens, so the first device to ask already sees it.
    std::ifstream in(updatePayloadFile, std::ios::binary);
    std::stringstream bytes;
    bytes << in.rdbuf();
    offer.payload = bytes.str();
    if (!in || offer.payload.empty()) {
      std::cerr << "lum-backend: cannot read the update payload " << updatePayloadFile << "\n";
      return 1;
    }
    backend.updates().publishUpdate(offer);
    Lum::Tools::UpdateFaults pace;
    pace.blockDelay = std::chrono::milliseconds(updateBlockMs);
    backend.updates().setFaults(pace);
    std::cout << "offering update " << offer.version << " (" << offer.payload.size()
              << " bytes in blocks of " << offer.blockSize << ")\n";
  }
  if (!backend.start(&error)) {
    std::cerr << "lum-backend: " << error << "\n";
    return 1;
  }
  if (!tunablesFile.empty()) {
    // Values every device gets with its next state answer, so a demo can
    // shorten the schedule without waiting for the defaults.
    std::ifstream in(tunablesFile);
    std::stringstream text;
    text << in.rdbuf();
    LumJson::Value tunables;
    if (!Lum::Core::JsonUtil::ParseStrict(text.str(), tunables) || !tunables.isObject()) {
      std::cerr << "lum-backend: " << tunablesFile << " holds no JSON object\n";
      return 1;
    }
    backend.pushTunables(tunables);
  }
  std::cout << "lum-backend listening on " << options.bindAddress << ":" << backend.port();
  if (!pki.loadedDevice().commonName.empty()) {
    std::string cn = pki.loadedDevice().commonName;
    std::cout << ", device " << cn << " -> " << backend.baseUrl(cn.substr(0, cn.find('.')));
  }
  std::cout << std::endl;
  Lum::Tools::SupportConsole console(backend, std::cout, outputMutex);
  if (!console.start(STDIN_FILENO)) {
    std::cerr << "lum-backend: no support console (cannot make a pipe)\n";
  }
  int received = 0;
  sigwait(&signals, &received);
  {
    std::lock_guard<std::mutex> lock(outputMutex);
    std::cout << "lum-backend stopping" << std::endl;
  }
  console.stop();
  backend.stop();
  return 0;
}
