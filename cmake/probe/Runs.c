/* Built for the target and run once at configure time: does this kernel run
   the programs the build makes? */
int main(void) { return 0; }
