// Configurations of simulated instruments: the defaults of each kind, the
// checks an attached one must pass, and the instrument a configuration makes.
#ifndef KAVREL_SIM_CONFIG_H
#define KAVREL_SIM_CONFIG_H

#include <memory>

#include "instrument.h"
#include "kavrel_sim.h"

namespace kavrel::sim {

// The default configuration of a kind (KAVREL_SIM_CM2, _NIR or _SILENT); the
// chip serial is left empty. False for an unknown kind.
bool default_config(uint32_t instrument, kavrel_sim_config &config);

// Whether config can be attached: texts terminated, a chip serial, a known
// kind and speed, reserved 0, finite coefficients, a temperature the
// protocols can carry (-128 to 127 degrees), and what the kind's protocol
// asks of the rest.
bool valid_config(const kavrel_sim_config &config);

// The instrument of a valid configuration, sending on line.
std::unique_ptr<Instrument> make_instrument(const kavrel_sim_config &config, LineSink &line);

// The scene between the C record and the optics.
Scene scene_from(const kavrel_sim_scene &scene);
kavrel_sim_scene scene_record(const Scene &scene);

}  // namespace kavrel::sim

#endif
