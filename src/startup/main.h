// The daemon's start-up: options, daemonising, logging, fatal signals and the start order.
#pragma once

#include <cstdint>

class Configuration;

struct Option {
  uint8_t daemon = 0;     // "-d": run in background
  uint8_t log_level = 7;  // "-v N": syslog priority ceiling
};

// Walks argv from argv[0]. "-h" prints the usage and exits 0; "-d" sets the daemon flag;
// "-v N" sets the level; "-s SN" is consumed and ignored; "-m MAC" replaces the configuration's
// MAC. A missing value after "-v", "-s" or "-m" keeps the default.
void ParseOptions(Option* option, Configuration* config, int argc, char** argv);
void Daemonize();
void InitLogger(Option* option);
// What a fatal signal ends in: logs "Error: signal N" and exits with status 1. The signal handler
// installed at start-up only hands the number to a reporter thread, which calls this.
void handler(int sig);

// The whole daemon: start order, then the main event loop. Returns only when the loop ends.
int RunHub(int argc, char** argv);
