/* What a process costs at the least: the floor that the CGI programs are measured against. */
int main(void) { return 0; }
