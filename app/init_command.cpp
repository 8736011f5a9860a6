#include "app/init_command.h"

#include <boost/program_options.hpp>

#include <cctype>
#include <expected>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <system_error>

#include "app/bundle_template.h"
#include "app/exit_codes.h"

namespace appex {
namespace {

namespace fs = std::filesystem;
namespace po = boost::program_options;

// "My Thing.appex" -> "my-thing": the last part of the bundle identifier.
std::string identifierPart(const std::string& name) {
  std::string out;
  for (unsigned char c : name) {
    if (std::isalnum(c)) {
      out += static_cast<char>(std::tolower(c));
    } else if (!out.empty() && out.back() != '-') {
      out += '-';
    }
  }
  while (!out.empty() && out.back() == '-') out.pop_back();
  return out.empty() ? "extension" : out;
}

std::expected<void, std::string> write(const fs::path& file, const std::string& text) {
  std::error_code ec;
  fs::create_directories(file.parent_path(), ec);
  std::ofstream out(file, std::ios::binary);
  out << text;
  out.close();
  if (ec || !out) return std::unexpected("cannot write " + file.string());
  return {};
}

}  // namespace

int initCommand(const std::vector<std::string>& args) {
  po::options_description visible("appex init DIR");
  visible.add_options()("help,h", "show this help");
  po::options_description all;
  all.add(visible).add_options()("dir", po::value<std::string>());
  po::positional_options_description positional;
  positional.add("dir", 1);
  po::variables_map vm;
  try {
    po::store(po::command_line_parser(args).options(all).positional(positional).run(), vm);
  } catch (const po::error& e) {
    std::cerr << "appex init: " << e.what() << "\n" << visible;
    return kExitUsage;
  }
  if (vm.count("help")) {
    std::cout << visible
              << "\nWrites a new extension bundle into DIR (absent or empty): Info.plist, a background\n"
                 "page, a popup, a content script, the SDK under Assets/extension/appex/, and\n"
                 "test/extension.test.mjs, a test that drives it through 'appex run --control'.\n"
                 "\nexit codes: 0 ok, 1 cannot write, 2 bad command line\n";
    return kExitOk;
  }
  if (!vm.count("dir")) {
    std::cerr << "appex init: where? (appex init DIR)\n";
    return kExitUsage;
  }
  const fs::path dir = vm["dir"].as<std::string>();
  std::error_code ec;
  if (fs::exists(dir, ec) && !(fs::is_directory(dir, ec) && fs::is_empty(dir, ec))) {
    std::cerr << "appex init: " << dir.string() << " exists and is not an empty folder; nothing written\n";
    return kExitFailed;
  }
  const std::string name = fs::absolute(dir, ec).lexically_normal().filename().replace_extension().string();
  const std::string shown = name.empty() ? "Extension" : name;
  for (const auto& file : bundleTemplate(shown, "com.example." + identifierPart(shown))) {
    if (auto written = write(dir / file.path, file.text); !written) {
      std::cerr << "appex init: " << written.error() << "\n";
      return kExitFailed;
    }
  }
  const fs::path sdk = dir / "Contents/Resources/Assets/extension/appex";
  fs::create_directories(sdk, ec);
  for (const char* file : {"extension.js", "content.js", "appex.d.ts"}) {
    if (!ec) fs::copy_file(fs::path(APPEX_SDK_DIR) / file, sdk / file, ec);
    if (ec) {
      std::cerr << "appex init: cannot copy the SDK's " << file << " from " << APPEX_SDK_DIR << ": " << ec.message()
                << "\n";
      return kExitFailed;
    }
  }
  std::cout << "appex init: wrote " << shown << " into " << dir.string() << "\n"
            << "  appex check " << dir.string() << "\n"
            << "  appex run " << dir.string() << " --open https://example.com/\n"
            << "  APPEX_BIN=appex node --test " << (dir / "test").string() << "/\n";
  return kExitOk;
}

}  // namespace appex
