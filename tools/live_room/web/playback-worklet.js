// Received stereo blocks -> speakers, through a small jitter buffer.
//
// Blocks arrive from the main thread as ArrayBuffers of 960 float32
// (480 frames, L R L R ...). Network delivery is bursty, so we hold a few
// blocks before playing:
//   - start (and restart after running dry) once 3 blocks are held: 30 ms of
//     cushion against late packets without adding much delay;
//   - when more than 8 are held, drop the oldest: a burst after a stall would
//     otherwise leave the delay permanently higher;
//   - a quantum we cannot fill completely is finished with silence and counted
//     as an underrun. Silence while first filling is not an underrun.
// While recording, every played quantum is copied (interleaved, as played,
// silence included) into a buffer of at most 20 s for the end-to-end test.

const START_BLOCKS = 3;
const MAX_BLOCKS = 8;
const STATS_EVERY_QUANTA = 38; // ~100 ms of 128-frame quanta at 48 kHz

class PlaybackProcessor extends AudioWorkletProcessor {
  constructor() {
    super();
    this.queue = [];      // Float32Array blocks, oldest first
    this.offset = 0;      // frames already played from queue[0]
    this.playing = false;
    this.started = false; // played at least once: later silence is an underrun
    this.underruns = 0;
    this.dropped = 0;
    this.record = null;   // Float32Array while recording
    this.recorded = 0;    // floats written into record
    this.quanta = 0;
    this.port.onmessage = (e) => this.onMessage(e.data);
  }

  onMessage(msg) {
    if (msg instanceof ArrayBuffer) {
      this.queue.push(new Float32Array(msg));
      while (this.queue.length > MAX_BLOCKS) {
        this.queue.shift();
        this.offset = 0;
        this.dropped++;
      }
      return;
    }
    // The main thread allocates the recording buffer (up to 20 s) so the
    // audio thread never has to; both directions transfer it, never copy.
    if (msg.type === 'record-start') {
      this.record = new Float32Array(msg.buffer);
      this.recorded = 0;
    } else if (msg.type === 'record-stop') {
      const record = this.record || new Float32Array(0);
      const length = this.recorded;
      this.record = null;
      this.recorded = 0;
      this.port.postMessage({ type: 'recording', sampleRate, buffer: record.buffer, length },
                            [record.buffer]);
    }
  }

  bufferedFrames() {
    let frames = -this.offset;
    for (const b of this.queue) frames += b.length / 2;
    return frames;
  }

  process(inputs, outputs) {
    // The node is built with one two-channel output.
    const [left, right] = outputs[0];
    const frames = left.length;

    if (!this.playing && this.queue.length >= START_BLOCKS) {
      this.playing = true;
      this.started = true;
    }

    let i = 0;
    if (this.playing) {
      while (i < frames && this.queue.length > 0) {
        const block = this.queue[0];
        const blockFrames = block.length / 2;
        const n = Math.min(frames - i, blockFrames - this.offset);
        for (let k = 0; k < n; k++) {
          left[i + k] = block[2 * (this.offset + k)];
          right[i + k] = block[2 * (this.offset + k) + 1];
        }
        i += n;
        this.offset += n;
        if (this.offset === blockFrames) {
          this.queue.shift();
          this.offset = 0;
        }
      }
    }
    if (i < frames) {
      left.fill(0, i);
      right.fill(0, i);
      if (this.started) this.underruns++;
      // Ran dry: wait for a fresh cushion rather than stuttering block by block.
      this.playing = false;
    }

    if (this.record) this.keep(left, right, frames);

    if (++this.quanta % STATS_EVERY_QUANTA === 0) {
      this.port.postMessage({
        type: 'stats',
        underruns: this.underruns,
        dropped: this.dropped,
        bufferedFrames: this.bufferedFrames(),
        playing: this.playing,
      });
    }
    return true;
  }

  keep(left, right, frames) {
    const n = Math.min(frames, (this.record.length - this.recorded) / 2);
    for (let k = 0; k < n; k++) {
      this.record[this.recorded++] = left[k];
      this.record[this.recorded++] = right[k];
    }
  }
}

registerProcessor('playback-processor', PlaybackProcessor);
