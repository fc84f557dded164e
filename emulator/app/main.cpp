// qxp-emulator: runs a local QX Platform emulator until Ctrl-C (SIGINT) or SIGTERM.
#include <qxpemu/Emulator.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>

#include <pthread.h>

namespace {

constexpr unsigned short kDefaultPort = 8090;

void printUsage(std::ostream& out) {
    out << "Usage: qxp-emulator [options]\n"
           "  --port N                 TCP port (default "
        << kDefaultPort
        << "; 0 picks a free one)\n"
           "  --bind ADDRESS           address to listen on (default 127.0.0.1)\n"
           "  --token-lifetime SECONDS lifetime of issued tokens (default 3600)\n"
           "  --max-poll SECONDS       longest long-poll wait (default 30)\n"
           "  --client ID:SECRET:ACCOUNT\n"
           "                           a known client; repeat for more (default: one\n"
           "                           built-in client whose API key is printed)\n"
           "  --threads N              I/O threads (default 1)\n"
           "  --key FILE               PEM RSA private key to sign with (default: generated)\n"
           "  --heartbeat-interval-ms N expected heartbeat period (default 5000)\n"
           "  --tls                    serve HTTPS with a certificate for 127.0.0.1 and\n"
           "                           localhost, signed by a CA made at start whose\n"
           "                           certificate is written to a file (path printed)\n"
           "  --tls-cert FILE          with --tls: serve this PEM certificate chain instead\n"
           "  --tls-key FILE           with --tls: the PEM private key of --tls-cert\n"
           "  --ca-out FILE            with --tls: write the generated CA certificate here\n"
           "  --tls-name NAME          with --tls: a host name or address the generated\n"
           "                           certificate names; repeat for more (default:\n"
           "                           localhost, 127.0.0.1 and ::1)\n"
           "  --state FILE             keep mailboxes and services in FILE across restarts:\n"
           "                           read at start, written every 500 ms and at stop\n"
           "  --state-interval-ms N    how often the state file is written (default 500)\n"
           "  --idle-close-ms N        close a connection idle for N ms between requests\n"
           "                           (default 0: after 300 s)\n"
           "  --max-requests-per-connection N\n"
           "                           close a connection after its Nth answer (default 0:\n"
           "                           no limit)\n"
           "  --close-unannounced      that Nth answer does not say \"Connection: close\"\n"
           "  --help                   this text\n";
}

int toInt(const std::string& option, const std::string& value, int low, int high) {
    try {
        std::size_t used = 0;
        const long long number = std::stoll(value, &used);
        if (used == value.size() && number >= low && number <= high) {
            return int(number);
        }
    } catch (const std::exception&) {
    }
    throw std::invalid_argument(option + " needs a whole number from " + std::to_string(low) +
                                " to " + std::to_string(high) + ", got \"" + value + "\"");
}

qxpemu::EmulatorOptions parseArguments(int argc, char** argv) {
    qxpemu::EmulatorOptions options;
    options.port = kDefaultPort;
    bool namesGiven = false;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (option == "--help" || option == "-h") {
            printUsage(std::cout);
            std::exit(0);
        }
        if (option == "--tls") {
            options.tls = true;
            continue;
        }
        if (option == "--close-unannounced") {
            options.connections.announceClose = false;
            continue;
        }
        if (i + 1 >= argc) {
            throw std::invalid_argument(
                option == "--port" || option == "--bind" || option == "--token-lifetime" ||
                        option == "--max-poll" || option == "--client" || option == "--threads" ||
                        option == "--key" || option == "--heartbeat-interval-ms" ||
                        option == "--tls-cert" || option == "--tls-key" || option == "--ca-out" ||
                        option == "--tls-name" || option == "--state" ||
                        option == "--state-interval-ms" || option == "--idle-close-ms" ||
                        option == "--max-requests-per-connection"
                    ? option + " needs a value"
                    : "unknown option " + option);
        }
        const std::string value = argv[++i];
        if (option == "--port") {
            options.port = static_cast<unsigned short>(toInt(option, value, 0, 65535));
        } else if (option == "--bind") {
            options.bindAddress = value;
        } else if (option == "--token-lifetime") {
            options.tokenLifetimeSeconds = toInt(option, value, -86400, 365 * 86400);
        } else if (option == "--max-poll") {
            options.maxPollSeconds = toInt(option, value, 0, 3600);
        } else if (option == "--threads") {
            options.threads = unsigned(toInt(option, value, 1, 64));
        } else if (option == "--key") {
            options.signingKeyPemFile = value;
        } else if (option == "--heartbeat-interval-ms") {
            options.heartbeatIntervalMs = toInt(option, value, 1, 3600000);
        } else if (option == "--tls-cert") {
            options.tlsCertFile = value;
        } else if (option == "--tls-key") {
            options.tlsKeyFile = value;
        } else if (option == "--tls-name") {
            if (!namesGiven) {
                options.tlsNames.clear();
                namesGiven = true;
            }
            options.tlsNames.push_back(value);
        } else if (option == "--state") {
            options.stateFile = value;
        } else if (option == "--state-interval-ms") {
            options.stateSaveIntervalMs = toInt(option, value, 1, 3600000);
        } else if (option == "--idle-close-ms") {
            options.connections.idleCloseMs = toInt(option, value, 0, 3600000);
        } else if (option == "--max-requests-per-connection") {
            options.connections.maxRequestsPerConnection = toInt(option, value, 0, 1000000000);
        } else if (option == "--ca-out") {
            options.caCertFile = value;
        } else if (option == "--client") {
            const auto first = value.find(':');
            const auto second = first == std::string::npos ? first : value.find(':', first + 1);
            if (second == std::string::npos || first == 0) {
                throw std::invalid_argument("--client needs ID:SECRET:ACCOUNT, got \"" + value +
                                            "\"");
            }
            options.clients.push_back({value.substr(0, first),
                                       value.substr(first + 1, second - first - 1),
                                       value.substr(second + 1)});
        } else {
            throw std::invalid_argument("unknown option " + option);
        }
    }
    if (!options.tls && !(options.tlsCertFile.empty() && options.tlsKeyFile.empty() &&
                          options.caCertFile.empty())) {
        throw std::invalid_argument("--tls-cert, --tls-key and --ca-out need --tls");
    }
    if (options.tlsCertFile.empty() != options.tlsKeyFile.empty()) {
        throw std::invalid_argument("--tls-cert and --tls-key go together");
    }
    if (!options.tlsCertFile.empty() && !options.caCertFile.empty()) {
        throw std::invalid_argument(
            "--ca-out is for the generated certificate, not with --tls-cert");
    }
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    qxpemu::EmulatorOptions options;
    try {
        options = parseArguments(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "qxp-emulator: " << error.what() << "\n";
        printUsage(std::cerr);
        return 2;
    }

    // Block the stop signals before any thread exists, so every I/O thread inherits the
    // mask and only the sigwait below ever sees them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    try {
        qxpemu::Emulator emulator(options);
        emulator.start();
        std::cout << "qxp-emulator listening on " << emulator.baseUrl() << "\n";
        if (!emulator.caCertificateFile().empty()) {
            std::cout << "CA certificate: " << emulator.caCertificateFile() << "\n";
        }
        std::cout << "QX_PLATFORM_CONFIG='" << emulator.platformConfig() << "'\n"
                  << "Control interface: " << emulator.baseUrl() << "/_emulator/state\n"
                  << "Dashboard: " << emulator.baseUrl() << "/\n"
                  << "Press Ctrl-C to stop." << std::endl;
        int received = 0;
        sigwait(&stopSignals, &received);
        std::cout << "qxp-emulator stopping" << std::endl;
        emulator.stop();
    } catch (const std::exception& error) {
        std::cerr << "qxp-emulator: " << error.what() << "\n";
        return 1;
    }
    return 0;
}
