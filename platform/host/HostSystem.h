// Whether the system library may run commands on the file manager's behalf.
#pragma once

// A process that only looks at the disks forbids them (allow false): the file manager would otherwise have a
// damaged search database rebuilt while another process records into it. SystemFmt then prints one line and
// answers 0. Allowed unless forbidden. Any thread.
void HostAllowCommands(bool allow);
bool HostCommandsAllowed();
