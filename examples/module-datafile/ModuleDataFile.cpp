// A suite module's side of the feedback hand-over: the tunnel module counts a session into its data file, the
// file the host names to the feedback service under "TunnelPhoneHomeFile". The service takes the file over at
// its next collection and deletes it; the module never waits for that.
#include <cstdio>
#include <string>

#include "PhoneHome/Bencode.h"
#include "PhoneHome/PhoneHomePluginImp.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s DATA_FILE DNS_DOMAIN\n", argv[0]);
    return 2;
  }
  std::string const dataFile = argv[1];  // e.g. <install root>/CustomerExperienceFeedback/moduledata/tunnel.cef

  // While the administrator's profile disables the service, its marker lies in the moduledata directory and
  // no module gathers feedback at all.
  std::string const moduleData = dataFile.substr(0, dataFile.find_last_of('/'));
  if (!CPhoneHomeUtility::IsPhoneHomeEnabled(moduleData)) {
    std::printf("feedback disabled: nothing written\n");
    return 0;
  }

  // Spool mode: counts the service has not taken yet wait in DATA_FILE.temp and are loaded from there.
  EBencodeResult result = eBencodeOk;
  CBencodeDictionary data(dataFile, result, true);
  if (result != eBencodeOk) {  // -2: another writer holds the file; keep its data and come back later
    std::fprintf(stderr, "cannot load %s.temp: %d\n", dataFile.c_str(), static_cast<int>(result));
    return 1;
  }

  data.Add("SessionsStarted", 1);
  // The service hashes this domain and sends only the hash.
  CBencodeDictionary* network = nullptr;
  CBencodeDictionary* trusted = nullptr;
  if (!data.Get("Network", network, true) || !network->Get("TrustedInterface", trusted, true) ||
      !trusted->Insert("DNSDomain", std::string(argv[2]))) {
    return 1;
  }

  // Hands everything over in DATA_FILE when the service has taken the last file; otherwise it waits in
  // DATA_FILE.temp, and the next run adds to it.
  result = data.Externalize(true);
  if (result == eBencodeOk && data.Items().empty()) {
    result = data.Externalize(true);  // handed over: the side file must not offer the same counts again
  }
  if (result != eBencodeOk) {
    std::fprintf(stderr, "cannot write %s: %d\n", dataFile.c_str(), static_cast<int>(result));
    return 1;
  }
  return 0;
}
