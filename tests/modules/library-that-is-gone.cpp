// What a faulty module needs and the linker does not find.

int inTheLibraryThatIsGone();

int inTheLibraryThatIsGone()
{
    return 0;
}
