/* Placeholder until the client lands. */
int main(void)
{
    return 2;
}
