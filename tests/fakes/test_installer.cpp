// The body of the test update installers: a small Windows program that does nothing. It is
// signed in many ways by the update tests; it never runs here.
int main()
{
    return 0;
}
