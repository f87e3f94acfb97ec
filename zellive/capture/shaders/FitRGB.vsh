attribute vec4 a_position;
attribute vec2 a_TexCoord;
varying lowp vec2 frag_TexCoord;
void main() {
  gl_Position = a_position;
  frag_TexCoord = a_TexCoord;
}
