// velora-pack: builds, installs, lists and removes offline resource packages.
//
//   velora-pack build <folder> <base-url> <out> [--id ID] [--version V] [--header "Name: value"]...
//       Packages every file under <folder>; file a/b.css is served for
//       <base-url>/a/b.css with a Content-Type from its extension, and each
//       --header given (as a static origin sends Timing-Allow-Origin). <out>
//       is a folder, or a .zip file.
//   velora-pack install <package>     into $VELORA_PACKAGES_DIR
//   velora-pack list
//   velora-pack remove <id>
#include <zip.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "strata/strata_core.h"

namespace fs = std::filesystem;

namespace {

int usage() {
  std::fprintf(stderr,
               "usage: velora-pack build <folder> <base-url> <out-folder|out.zip> [--id ID] "
               "[--version V] [--header \"Name: value\"]...\n"
               "       velora-pack install <package-folder|package.zip>\n"
               "       velora-pack list\n"
               "       velora-pack remove <id>\n");
  return 2;
}

std::string contentType(const fs::path& file) {
  static const std::map<std::string, std::string> types = {{".html", "text/html; charset=utf-8"},
                                                           {".htm", "text/html; charset=utf-8"},
                                                           {".css", "text/css"},
                                                           {".js", "text/javascript"},
                                                           {".mjs", "text/javascript"},
                                                           {".json", "application/json"},
                                                           {".map", "application/json"},
                                                           {".txt", "text/plain"},
                                                           {".xml", "application/xml"},
                                                           {".svg", "image/svg+xml"},
                                                           {".png", "image/png"},
                                                           {".jpg", "image/jpeg"},
                                                           {".jpeg", "image/jpeg"},
                                                           {".gif", "image/gif"},
                                                           {".webp", "image/webp"},
                                                           {".ico", "image/x-icon"},
                                                           {".woff", "font/woff"},
                                                           {".woff2", "font/woff2"},
                                                           {".ttf", "font/ttf"},
                                                           {".wasm", "application/wasm"}};
  std::string extension = file.extension().string();
  for (char& c : extension)
    c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  auto it = types.find(extension);
  return it == types.end() ? "application/octet-stream" : it->second;
}

// "Name: value" as a header every packaged file is served with; false when
// it is not one (a name that is no HTTP token, a value with CR or LF).
bool parseHeader(const std::string& line, std::pair<std::string, std::string>* header) {
  const size_t colon = line.find(':');
  if (colon == std::string::npos || colon == 0)
    return false;
  const std::string name = line.substr(0, colon);
  for (unsigned char c : name) {
    if (c <= 32 || c >= 127 || std::strchr("\"(),/:;<=>?@[\\]{}", c))
      return false;
  }
  std::string value = line.substr(colon + 1);
  value.erase(0, value.find_first_not_of(" \t"));
  while (!value.empty() && (value.back() == ' ' || value.back() == '\t'))
    value.pop_back();
  if (value.find_first_of("\r\n") != std::string::npos)
    return false;
  *header = {name, value};
  return true;
}

// Manifests are JSON text: file names must be UTF-8 to be named in one.
bool isUtf8(const std::string& text) {
  try {
    (void)nlohmann::json(text).dump();
    return true;
  } catch (const nlohmann::json::exception&) {
    return false;
  }
}

int build(const std::vector<std::string>& args) {
  if (args.size() < 3)
    return usage();
  fs::path folder = args[0];
  std::string base = args[1];
  while (!base.empty() && base.back() == '/')
    base.pop_back();
  fs::path out = args[2];
  std::string id = folder.filename().string(), version = "1";
  std::vector<std::pair<std::string, std::string>> headers;
  if (args.size() % 2 == 0)
    return usage();  // an option without its value
  for (size_t i = 3; i + 1 < args.size(); i += 2) {
    if (args[i] == "--id") {
      id = args[i + 1];
    } else if (args[i] == "--version") {
      version = args[i + 1];
    } else if (args[i] == "--header") {
      std::pair<std::string, std::string> header;
      if (!parseHeader(args[i + 1], &header) || !isUtf8(header.second)) {
        std::fprintf(stderr, "velora-pack: not a header line \"Name: value\": %s\n",
                     args[i + 1].c_str());
        return 2;
      }
      headers.push_back(std::move(header));
    } else {
      return usage();
    }
  }
  if (!fs::is_directory(folder)) {
    std::fprintf(stderr, "velora-pack: %s is not a folder\n", folder.c_str());
    return 1;
  }
  nlohmann::json manifest = {
      {"id", id}, {"version", version}, {"resources", nlohmann::json::array()}};
  std::vector<std::string> files;
  std::error_code ec;
  for (fs::recursive_directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
    std::string relative = fs::relative(it->path(), folder).generic_string();
    if (it->is_symlink()) {
      // A link would package whatever it points to, inside the folder or not.
      std::fprintf(stderr, "velora-pack: %s is a symbolic link; links are not packaged\n",
                   relative.c_str());
      return 1;
    }
    if (!it->is_regular_file() || relative == "manifest.json")
      continue;
    if (!isUtf8(relative)) {
      std::fprintf(stderr, "velora-pack: left out a file whose name is not UTF-8: %s\n",
                   relative.c_str());
      continue;
    }
    files.push_back(relative);
  }
  if (ec) {
    std::fprintf(stderr, "velora-pack: cannot read %s: %s\n", folder.c_str(), ec.message().c_str());
    return 1;
  }
  std::sort(files.begin(), files.end());
  for (const std::string& file : files) {
    nlohmann::json fields = {{"Content-Type", contentType(file)}};
    for (const auto& [name, value] : headers)
      fields[name] = value;
    manifest["resources"].push_back(
        {{"url", base + "/" + file}, {"file", file}, {"headers", std::move(fields)}});
  }
  std::string manifestText = manifest.dump(2);
  if (out.extension() == ".zip") {
    int error = 0;
    zip_t* archive = zip_open(out.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
    if (!archive) {
      std::fprintf(stderr, "velora-pack: cannot create %s\n", out.c_str());
      return 1;
    }
    for (const std::string& file : files) {
      zip_source_t* source = zip_source_file(archive, (folder / file).c_str(), 0, -1);
      if (!source || zip_file_add(archive, file.c_str(), source, ZIP_FL_OVERWRITE) < 0) {
        std::fprintf(stderr, "velora-pack: cannot add %s: %s\n", file.c_str(),
                     zip_strerror(archive));
        zip_discard(archive);
        return 1;
      }
    }
    zip_source_t* text = zip_source_buffer(archive, manifestText.data(), manifestText.size(), 0);
    zip_file_add(archive, "manifest.json", text, ZIP_FL_OVERWRITE);
    if (zip_close(archive) != 0) {
      std::fprintf(stderr, "velora-pack: cannot write %s\n", out.c_str());
      return 1;
    }
  } else {
    fs::create_directories(out, ec);
    for (const std::string& file : files) {
      fs::create_directories((out / file).parent_path(), ec);
      fs::copy_file(folder / file, out / file, fs::copy_options::overwrite_existing, ec);
      if (ec) {
        std::fprintf(stderr, "velora-pack: cannot copy %s: %s\n", file.c_str(),
                     ec.message().c_str());
        return 1;
      }
    }
    std::ofstream(out / "manifest.json") << manifestText;
  }
  std::printf("built %s %s: %zu resources under %s -> %s\n", id.c_str(), version.c_str(),
              files.size(), base.c_str(), out.c_str());
  return 0;
}

}  // namespace

int run(int argc, char** argv) {
  if (argc < 2)
    return usage();
  std::string command = argv[1];
  std::vector<std::string> args(argv + 2, argv + argc);
  if (command == "build")
    return build(args);
  if (command == "install" && args.size() == 1) {
    std::string error;
    if (!StrataCore::PackageManager::install(args[0], &error)) {
      std::fprintf(stderr, "velora-pack: cannot install %s: %s\n", args[0].c_str(), error.c_str());
      return 1;
    }
    std::printf("installed %s into %s\n", args[0].c_str(),
                StrataCore::PackageManager::packagesDir().c_str());
    return 0;
  }
  if (command == "list" && args.empty()) {
    for (const auto& package : StrataCore::PackageManager::list()) {
      std::printf("%s\t%s\t%zu resources\t%s\n", package.id.c_str(), package.version.c_str(),
                  package.resources, package.path.c_str());
    }
    return 0;
  }
  if (command == "remove" && args.size() == 1) {
    if (!StrataCore::PackageManager::remove(args[0])) {
      std::fprintf(stderr, "velora-pack: no package %s is installed\n", args[0].c_str());
      return 1;
    }
    return 0;
  }
  return usage();
}

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "velora-pack: %s\n", e.what());
    return 1;
  }
}
