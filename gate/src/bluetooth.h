/* Paired phones that come over Bluetooth. */
#ifndef BRISEL_GATE_BLUETOOTH_H
#define BRISEL_GATE_BLUETOOTH_H

/* Offers the profile to bonded phones as long as it runs, and gives each connection a gate of its own. The exit code.
 */
int bluetooth_run(void);

#endif
