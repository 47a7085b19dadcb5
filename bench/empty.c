/* What a process costs at the least, linked as the CGI programs are: the floor that they are measured against. */
int main(void) { return 0; }
