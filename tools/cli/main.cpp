// restclient-cli: talks to the cloud services (or the local emulator) with the library's clients.
#include <tools/cli/Commands.h>

#include <boost/program_options.hpp>

#include <iostream>

namespace po = boost::program_options;

namespace {

void usage(po::options_description const& flags)
{
    std::cerr << "usage: restclient-cli [options] <command> <arguments>\n\ncommands:\n";
    for (auto const& c : tavix::cli::commands()) std::cerr << "  " << c.usage << "\n";
    std::cerr << "\n" << flags;
}

} // namespace

int main(int argc, char** argv)
{
    tavix::cli::Options options;
    std::vector<std::string> meta;
    std::vector<std::string> words;
    po::options_description flags("options");
    flags.add_options()
        ("help,h", "show this text")
        ("token,t", po::value(&options.token), "bearer token")
        ("name", po::value(&options.name), "store: the stored object's name (default: the file's name)")
        ("type", po::value(&options.type), "store: the object's type; resources: type filter")
        ("project", po::value(&options.project), "resources: project prefix filter")
        ("meta", po::value(&meta), "store: extra metadata key=value (repeatable)");
    po::options_description hidden;
    hidden.add_options()("words", po::value(&words));
    po::options_description all;
    all.add(flags).add(hidden);
    po::positional_options_description positional;
    positional.add("words", -1);

    po::variables_map vm;
    try {
        po::store(po::command_line_parser(argc, argv).options(all).positional(positional).run(), vm);
        po::notify(vm);
    } catch (po::error const& e) {
        std::cerr << e.what() << "\n";
        usage(flags);
        return 2;
    }
    for (std::string const& pair : meta) {
        auto const eq = pair.find('=');
        if (eq == std::string::npos) {
            std::cerr << "--meta takes key=value, not '" << pair << "'\n";
            return 2;
        }
        options.meta[pair.substr(0, eq)] = pair.substr(eq + 1);
    }
    if (vm.count("help") || words.empty()) {
        usage(flags);
        return vm.count("help") ? 0 : 2;
    }
    for (auto const& c : tavix::cli::commands()) {
        if (words[0] != c.name) continue;
        std::vector<std::string> const args(words.begin() + 1, words.end());
        if (args.size() != c.arguments) {
            std::cerr << "usage: restclient-cli " << c.usage << "\n";
            return 2;
        }
        return c.run(options, args);
    }
    std::cerr << "unknown command '" << words[0] << "'\n";
    usage(flags);
    return 2;
}
