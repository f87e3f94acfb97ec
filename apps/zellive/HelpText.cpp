#include "apps/zellive/HelpText.h"

namespace zellive::tool {

const char* const helpText = R"(Publishes live audio and video to an RTMP server.

Usage: zellive publish URL (--input FILE | --test-card | --camera [NAME] --microphone [NAME]) [options]
       zellive devices [--json]

URL is where to publish: rtmp://HOST[:PORT]/APPLICATION/STREAM
devices lists the cameras, microphones and encoders of this machine, and what each can do.

What to publish
  -i, --input FILE            A media file, in real time
      --test-card             A moving picture with a clock, and a flash and a beep every second
      --camera [NAME]         A camera, by a name or id that "zellive devices" lists, or part of one; the machine's
                              first without NAME. clip:FILE plays a file over and over as if it were a camera.
                              Without --microphone the sound is silence
      --microphone [NAME]     A microphone, as above. Without --camera the stream has sound only

Files and length
      --loop                  Begin the file again when it ends
      --duration SECONDS      End after so many seconds of media

Camera
      --mirror                Left and right changed over, for the viewers as well
      --orientation WAY       For a camera that is turned itself, how its picture is turned back: landscape-left
                              (not at all, the default), portrait (a quarter clockwise), upside-down (a quarter
                              the other way) or landscape-right (by half)
      --preview               Shows the camera's picture in a window. Closing it ends the preview, not the stream
      --watermark FILE.png    A picture in the upper right corner of the preview. Viewers never see it
      --pause-unfocused       While the preview is not the window in use, viewers see a still picture

Picture and sound
      --quality 0..4          480p, 720p, 1080p, 1440p or 2160p; 1 (720p) by default
      --size WxH              Size of the stream, with bars where its shape is not the source's; by default the
                              source's, up to the quality's
      --fps N                 Pictures per second; by default the source's, up to the quality's
      --bitrate BPS           Video bits per second, such as 1500k or 1.5M; by default the quality's
      --adaptive              Let the video bit rate follow the network
      --denoise 0..3          Noise suppression, from off (the default) to strongest
      --encoder NAME          h264_nvenc, h264_vaapi or libx264; by default the best that works
      --preset NAME           The encoder's own preset, such as superfast

Connection
      --reconnect-interval S  Seconds before each new attempt; 5 by default
      --reconnect-count N     Give up after so many failures in a row; 3 by default

Output
      --json                  One JSON object a second, and one for each change of state and each error
  -v, --verbose               Every message of the library, on standard error
  -h, --help                  This text
      --version               The program's version

Examples
  zellive publish rtmp://live.example.net/app/KEY --input talk.mp4 --loop
  zellive publish rtmp://live.example.net/app/KEY --camera --microphone --preview --mirror
  zellive publish rtmp://127.0.0.1/live/test --camera clip:talk.mp4 --microphone clip:talk.mp4
  zellive publish rtmp://127.0.0.1/live/test --test-card --duration 30

Ctrl-C ends the stream cleanly. Ctrl-Z does not stop the program: viewers see a still picture and hear the sound until
Ctrl-Z is pressed again. Exit status: 0 after a clean run, 1 when the stream failed, 2 for a wrong command line.
)";

}  // namespace zellive::tool
