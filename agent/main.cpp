// hxagent: loads the Alibaba Cloud ECS plug-in and runs backups and restores with it.
#include "Cli.h"

int main(int argc, char** argv) { return hxagent::RunCli(argc, argv); }
