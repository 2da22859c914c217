#include "ui/Application.h"

int main(int argc, char** argv)
{
    return vantro::runApplication(argc, argv);
}
