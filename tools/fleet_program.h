// The program that runs the commands for the readers of other machines.
#pragma once

// If the command line has --broker, replace this process by the program. Throws Failure if it cannot be started.
void runForOtherMachines(int count, char** arguments);
