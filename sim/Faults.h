// The faults a simulated device can be told to show in its answers.
#ifndef KIV_SIM_FAULTS_H
#define KIV_SIM_FAULTS_H

namespace kivsim {

// Faults of one device, applied to every answer it sends, in this order: a wrong MAC address in
// the discovery answer, garbage instead of the answer, the cut, the delay, the copies.
struct Faults {
  bool silent = false;   // no answers at all (requests are still counted)
  int delayMs = 0;       // each answer leaves this late (0 to 60000 ms)
  int truncateTo = -1;   // each answer is cut to this many bytes; below 0: not cut
  bool garbage = false;  // each answer is replaced by as many bytes that form no message
  bool wrongMac = false; // the discovery answer's MACUAA names another address (last byte
                         // inverted)
  int copies = 1;        // each answer is sent this many times (1 to 100)
};

} // namespace kivsim

#endif // KIV_SIM_FAULTS_H
