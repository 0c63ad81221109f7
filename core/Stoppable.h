// Stoppable: the root of every long-running object that another thread may interrupt.
//
// Stop() may be called from any thread while another thread is inside an operation; the running
// operation then answers "stopped" as soon as it can. Start() makes the object usable again.
#pragma once

class Stoppable {
 public:
  virtual void Start() = 0;
  virtual void Stop() = 0;
  virtual ~Stoppable() = default;
};
