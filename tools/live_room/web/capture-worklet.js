// Microphone -> 10 ms blocks for the server.
//
// The audio thread hands us 128-frame quanta; the server wants 480-frame
// blocks (10 ms at 48 kHz, the engine's block). We gather quanta into a block
// and post each full block to the main thread, which sends it on the socket.
// 480 is not a multiple of 128, so a quantum can straddle two blocks.

const BLOCK_FRAMES = 480;

class CaptureProcessor extends AudioWorkletProcessor {
  constructor() {
    super();
    this.block = new Float32Array(BLOCK_FRAMES);
    this.filled = 0;
  }

  process(inputs) {
    // The node is set to one explicit channel, so the graph has already
    // down-mixed a stereo device. An input with no channels means the
    // source is not delivering (yet); we keep the 10 ms cadence with silence
    // so the server's view of this participant's clock does not stall.
    const channel = inputs[0] && inputs[0][0];
    const frames = channel ? channel.length : 128;
    let read = 0;
    while (read < frames) {
      const n = Math.min(frames - read, BLOCK_FRAMES - this.filled);
      if (channel) {
        // The server takes samples in [-1, 1]; resampling a device that
        // runs at another rate can overshoot a full-scale peak slightly.
        for (let i = 0; i < n; i++) {
          const v = channel[read + i];
          this.block[this.filled + i] = v > 1 ? 1 : v < -1 ? -1 : v;
        }
      } else {
        this.block.fill(0, this.filled, this.filled + n);
      }
      this.filled += n;
      read += n;
      if (this.filled === BLOCK_FRAMES) {
        // Transfer rather than copy; a fresh block takes its place.
        this.port.postMessage(this.block.buffer, [this.block.buffer]);
        this.block = new Float32Array(BLOCK_FRAMES);
        this.filled = 0;
      }
    }
    return true;
  }
}

registerProcessor('capture-processor', CaptureProcessor);
