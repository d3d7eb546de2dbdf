// cef: the command-line tool for the bencode files of the feedback module.
#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>
#include <string>

#include "Commands.h"

namespace {

constexpr const char* kJsonForm = R"(JSON form of bencode values:
  integer      JSON number (64-bit signed; fractions, exponents, true, false and null have no bencode form)
  list         JSON array
  dictionary   JSON object, keys in the order the system writes them (ascending bytes)
  byte string  JSON string when its bytes are valid UTF-8. Any other byte string, value or key, is a JSON
               string made of the character U+0000 followed by its bytes in hexadecimal: the bytes ff 41
               are shown as "\u0000ff41". A bencode string never holds a zero byte, so no real string can
               look like this, and "cef encode" turns it back into exactly the original bytes. (A string
               such as "\\u0000ff41", a backslash and letters, is an ordinary string.)
Exit codes: 0 success; 1 failure, or a checked file that does not load; 2 a wrong command line.)";

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("cef: dump, encode and check the bencode files of the feedback module", "cef");
  app.require_subcommand(1);
  app.footer(kJsonForm);

  std::string file, jsonFile, outFile, directory;
  bool compact = false;

  CLI::App* dump = app.add_subcommand("dump", "Print a bencode file (a dictionary or a list) as JSON");
  dump->add_option("FILE", file, "The bencode file")->required();
  dump->add_flag("-c,--compact", compact, "Print the JSON on one line");

  CLI::App* encode = app.add_subcommand("encode", "Write JSON as a canonical bencode file");
  encode->add_option("JSON_FILE", jsonFile, "The JSON text; - reads standard input")->required();
  encode->add_option("OUT_FILE", outFile, "The bencode file to write (replaced if it exists)")->required();
  encode->footer("The top-level value must be an object or an array; the file is written as the system "
                 "writes it, keys in ascending byte order.");

  CLI::App* check = app.add_subcommand("check", "Say whether a bencode file loads, and why not");
  check->add_option("FILE", file, "The bencode file; its first byte says whether it is a dictionary or a list")
      ->required();

  CLI::App* status = app.add_subcommand("status", "Show the state of a feedback directory");
  status->add_option("DIR", directory, "The feedback directory (holding outbound/, moduledata/ and history)")
      ->required();

  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    cef::Fail(std::string(e.what()) + " (see cef --help)");
    return cef::kExitUsage;
  }

  try {
    if (dump->parsed()) return cef::Dump(file, compact);
    if (encode->parsed()) return cef::Encode(jsonFile, outFile);
    if (check->parsed()) return cef::Check(file);
    if (status->parsed()) return cef::Status(directory);
  } catch (const std::exception& ex) {
    return cef::Fail(ex.what());
  } catch (...) {
    return cef::Fail("unexpected failure");
  }
  return cef::kExitUsage;
}
